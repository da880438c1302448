// The host's services behind the plug-in's bridge: one constant table. Contracts of the slots: zel_base_rtc_bridge.h.
//
// Thread rule: every slot may be called from any thread at any time. Slots that the plug-in never calls are null.
// The services keep their objects inside the work areas they are given and allocate nothing; their clock counts 100 ns.
#pragma once

#include <cstdint>
#include <functional>

#include "zel_base_rtc_bridge.h"

namespace zel::host {

/** The record to install with zelRtcSpeechToText_SetBaseRtcBridgeInterface. Lives as long as the process. */
const ZelBaseRtcBridgeInterface& bridge_interface() noexcept;

/** Starts of the clock service that have not been matched by a stop. The clock itself runs all the time. */
std::uint32_t clock_users() noexcept;

/** While it lives, sees the address of every word that its own thread loads through slot 2. `see` must not throw.
 * Nests, the innermost one sees; destroyed in reverse order. */
class WordWatch {
 public:
  explicit WordWatch(std::function<void(const std::uint32_t*)> see) noexcept;
  ~WordWatch();
  WordWatch(const WordWatch&) = delete;
  WordWatch& operator=(const WordWatch&) = delete;

  void see(const std::uint32_t* word) const { see_(word); }

 private:
  std::function<void(const std::uint32_t*)> see_;
  const WordWatch* outer_;
};

}  // namespace zel::host
