// The main thread of the simulated process: installs the bridge, initializes the library, lets rooms live, finalizes;
// sometimes twice. The root of every run.
#pragma once

namespace sim {

void RunApplication();

}  // namespace sim
