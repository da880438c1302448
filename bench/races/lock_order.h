// The reference host's services with mutexes that watch the order in which they are taken.
//
// A mutex that is locked while others are held comes behind them, for as long as both exist; an order that runs in a
// circle is a deadlock that has been lucky so far, and is printed to standard error as a breach.
//
// Thread rule: everything may be called from any thread. Threads are not ordered among one another by the watching, so
// that it hides no race.
#pragma once

#include <cstdint>

#include "zel_base_rtc_bridge.h"

namespace bench {

const ZelBaseRtcBridgeInterface& watched_bridge();

/** While it lives, a mutex that its thread locks is a breach. */
class NoLocks {
 public:
  NoLocks() noexcept;
  ~NoLocks();
  NoLocks(const NoLocks&) = delete;
  NoLocks& operator=(const NoLocks&) = delete;
};

struct LockCounts {
  std::uint64_t orders = 0;  ///< pairs of mutexes held together
  std::uint64_t breaches = 0;
};
LockCounts lock_counts();

}  // namespace bench
