// The host's services behind the plug-in's bridge: one constant table. Contracts of the slots: zel_base_rtc_bridge.h.
//
// Thread rule: every slot may be called from any thread at any time. Slots that the plug-in never calls are null.
// The services keep their objects inside the work areas they are given and allocate nothing; their clock counts 100 ns.
#pragma once

#include <cstdint>

#include "zel_base_rtc_bridge.h"

namespace zel::host {

/** The record to install with zelRtcSpeechToText_SetBaseRtcBridgeInterface. Lives as long as the process. */
const ZelBaseRtcBridgeInterface& bridge_interface() noexcept;

/** Starts of the clock service that have not been matched by a stop. The clock itself runs all the time. */
std::uint32_t clock_users() noexcept;

}  // namespace zel::host
