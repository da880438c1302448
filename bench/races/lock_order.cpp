#include "lock_order.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include "bridge_services.h"

namespace bench {
namespace {

using zel::host::bridge_interface;

std::mutex graph_mutex;
std::map<void*, std::set<void*>> behind;  // the mutexes locked while this one was held; guarded by graph_mutex
std::atomic<std::uint64_t> epoch{0};      // counts destroyed mutexes, whose addresses come back
std::atomic<std::uint64_t> orders{0};
std::atomic<std::uint64_t> breaches{0};

struct ThreadState {
  std::vector<void*> held;
  std::set<std::pair<void*, void*>> known;  // orders in the graph already, of this epoch
  std::uint64_t epoch = 0;
  bool locks_forbidden = false;
};
thread_local ThreadState here;

void complain(const char* what) {
  ++breaches;
  std::fprintf(stderr, "BREACH: %s\n", what);
}

bool leads_to(void* from, void* to, std::set<void*>& seen) {
  if (from == to) return true;
  if (!seen.insert(from).second) return false;
  const auto next = behind.find(from);
  return next != behind.end() &&
         std::any_of(next->second.begin(), next->second.end(), [&](void* mutex) { return leads_to(mutex, to, seen); });
}

void note_order(void* first, void* second) {
  const std::uint64_t now = epoch.load(std::memory_order_relaxed);
  if (std::exchange(here.epoch, now) != now) here.known.clear();
  if (!here.known.emplace(first, second).second) return;
  std::lock_guard hold(graph_mutex);
  if (!behind[first].insert(second).second) return;
  ++orders;
  std::set<void*> seen;
  if (leads_to(second, first, seen)) complain("mutexes are locked in a circle");
}

void lock(void* mutex) {
  if (here.locks_forbidden) complain("a mutex is locked on the audio path");
  if (std::find(here.held.begin(), here.held.end(), mutex) == here.held.end()) {
    for (void* held : here.held)
      note_order(held, mutex);
  }
  bridge_interface().table->mutex_lock(mutex);
  here.held.push_back(mutex);
}

std::int32_t unlock(void* mutex) {
  const auto last = std::find(here.held.rbegin(), here.held.rend(), mutex);
  if (last == here.held.rend()) {
    complain("a mutex is unlocked that is not held");
  } else {
    here.held.erase(std::next(last).base());
  }
  return bridge_interface().table->mutex_unlock(mutex);
}

void destroy(void* mutex) {
  {
    std::lock_guard hold(graph_mutex);
    behind.erase(mutex);
    for (auto& [first, seconds] : behind)
      seconds.erase(mutex);
    epoch.fetch_add(1, std::memory_order_relaxed);
  }
  bridge_interface().table->mutex_destroy(mutex);
}

BridgeTable make_table() {
  BridgeTable table = *bridge_interface().table;
  table.mutex_lock = lock;
  table.mutex_unlock = unlock;
  table.mutex_destroy = destroy;
  return table;
}

}  // namespace

const ZelBaseRtcBridgeInterface& watched_bridge() {
  static const BridgeTable table = make_table();
  static const ZelBaseRtcBridgeInterface record{ZEL_BASE_RTC_BRIDGE_VERSION, &table};
  return record;
}

NoLocks::NoLocks() noexcept {
  here.locks_forbidden = true;
}

NoLocks::~NoLocks() {
  here.locks_forbidden = false;
}

LockCounts lock_counts() {
  return {orders.load(), breaches.load()};
}

}  // namespace bench
