// What one recognizer takes of memory, measured in a process of its own.
#pragma once

namespace rooms {

/** Measures and prints one number a line, in bytes per recognizer; a program's exit status. */
int PrintMemory();

}  // namespace rooms
