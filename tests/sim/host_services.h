// The bridge table of the simulated host: every service as strict as its contract, every synchronization point a
// scheduling point, and every rule about who may call what and when checked.
#pragma once

#include <cstdint>

#include "zel_base_rtc_bridge.h"

namespace sim {

const BridgeTable& HostTable();

// The application's allocation functions: areas at any address, filled with garbage, watched for writes behind their
// end.
void* Allocate(void* object, std::uint32_t size);
void Release(void* object, void* memory);

}  // namespace sim
