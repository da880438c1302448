// A host for module tests: simple, correct services that record what the plug-in does with them and fail on demand.
//
// One at a time per process. Thread rule: services are callable from any thread, but only calls of the thread that made
// the host are recorded, so that recording adds no synchronization between threads. What is left alive, unbalanced or
// reported without being expected fails the test when the host goes.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "zel_base_rtc_bridge.h"

// Number of a service's slot.
#define SLOT(service) static_cast<int>(offsetof(BridgeTable, service) / sizeof(void*))

// "<level> <identifier> <code>", or "<level> <message>" with "|<argument>" for each argument: text for %s, hexadecimal
// for %x, otherwise decimal.
using Reports = std::vector<std::string>;
// Of refused arguments, for the identifiers E2022..., of which `numbers` has the rest between blanks.
Reports Refusals(const std::string& numbers);
// (bytes, alignment) of the blocks of one calculation or carving.
using Blocks = std::vector<std::pair<std::uint64_t, std::uint32_t>>;

enum LiveKind { kMutexes, kEvents, kThreads, kRings, kUserBlocks, kCarvings, kLiveKinds };

class ScriptedHost {
 public:
  ScriptedHost();
  ~ScriptedHost();
  ScriptedHost(const ScriptedHost&) = delete;
  ScriptedHost& operator=(const ScriptedHost&) = delete;

  static const BridgeTable& Table();

  Reports TakeReports();
  // The n-th call of `slot` from now on answers null, 0 or, where sizes are asked for, -1; an acquired chunk is empty.
  void Fail(int slot, int n);
  // Takes the order back; true when it was carried out.
  bool Failed();
  int Count(int slot) const;
  void ForgetCalls();
  std::array<int, kLiveKinds> Live() const;
  // Returns once every thread waits for its event and no signal is pending.
  void WaitForWorkers();

  // Recorded. Mutexes are numbered from 0 in the order of their creation.
  std::vector<int> calls;
  std::vector<Blocks> calculations, carvings;
  std::vector<std::pair<int, int>> lock_pairs;  // (held, taken inside)

  // Scripted.
  std::atomic<std::uint64_t> clock{0}, frequency{10'000'000};
  std::uint32_t ring_bytes = 163840;
  std::function<std::uint32_t(std::uint32_t lane, std::uint32_t size)> acquire_limit;  // most that is given
  std::function<void()> on_sleep;

  // The services' own.
  std::atomic<int> fail_slot{-1}, fail_in{0}, timer_depth{0}, mutexes_made{0};
  std::array<std::atomic<int>, kLiveKinds> live{};
  std::mutex guard;  // of reports and lock_pairs
  Reports reports;
  std::pair<ZelUserMallocFunction, void*> user_malloc;
  std::pair<ZelUserFreeFunction, void*> user_free;
  const std::thread::id owner = std::this_thread::get_id();
};

// A work area filled with garbage, `misalignment` bytes behind a multiple of 8; writing behind it fails the test.
class WorkArea {
 public:
  explicit WorkArea(std::int64_t size, std::size_t misalignment = 0)
      : start_(misalignment), end_(start_ + static_cast<std::size_t>(size)), bytes_(end_ + kGuard, kGarbage) {}
  ~WorkArea() { EXPECT_TRUE(untouched(end_)) << "written behind the work area"; }
  WorkArea(const WorkArea&) = delete;
  WorkArea& operator=(const WorkArea&) = delete;

  void* data() { return bytes_.data() + start_; }
  std::int32_t size() const { return static_cast<std::int32_t>(end_ - start_); }
  bool untouched(std::size_t from = 0) const { return bytes_.find_first_not_of(kGarbage, from) == std::string::npos; }

 private:
  static constexpr char kGarbage = '\xEE';
  static constexpr std::size_t kGuard = 16;
  std::size_t start_, end_;
  std::string bytes_;
};
