#include "bridge_services.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace zel::host {
namespace {

const BridgeTable& table() {
  return *bridge_interface().table;
}

TEST(BridgeServices, StringsAreCutAndTerminated) {
  const std::string source = "hello";
  for (std::size_t capacity = 0; capacity < 8; ++capacity) {
    std::string expected = capacity == 0 ? "" : source.substr(0, capacity - 1) + '\0', copied(8, '#');
    expected.resize(8, '#');
    table().string_copy(copied.data(), capacity, source.c_str());
    EXPECT_EQ(copied, expected);
  }
  std::string target = "abcd";
  EXPECT_EQ(table().memory_copy(target.data(), 3, "wxyz", 4), 0U);
  EXPECT_EQ(target, "abcd");
  EXPECT_NE(table().memory_copy(target.data(), 4, "wxyz", 4), 0U);
  EXPECT_NE(table().memory_copy(target.data(), 0, nullptr, 0), 0U);
  table().memory_clear(target.data() + 1, 2);
  EXPECT_EQ(target, std::string("w\0\0z", 4));
}

// Host objects in work areas that begin `start` bytes behind a multiple of eight.
struct Objects {
  static constexpr int kTurns = 3000;

  explicit Objects(std::size_t start) : begin(start) { storage.fill(0xEE); }
  void* work(std::size_t object) { return &storage[80 * object + begin]; }
  void count() {
    for (int i = 0; i < 2000; ++i) {
      table().mutex_lock(mutex);
      ++counter;
      table().mutex_unlock(mutex);
    }
  }
  static void partner(void* argument) {
    auto& self = *static_cast<Objects*>(argument);
    for (int i = 0; i < kTurns; ++i) {
      table().event_wait(self.ping);
      EXPECT_EQ(self.turns++, 2 * i + 1);
      table().event_signal(self.pong);
    }
    self.count();
  }

  const std::size_t begin;
  alignas(8) std::array<std::uint8_t, 320> storage;
  void *mutex = nullptr, *ping = nullptr, *pong = nullptr;
  int counter = 0;  // guarded by the mutex
  std::atomic<int> turns{0};
};

TEST(BridgeServices, ObjectsWorkWhereverTheyStand) {
  for (std::size_t start = 0; start < 8; ++start) {
    SCOPED_TRACE(start);
    Objects o(start);
    o.mutex = table().mutex_create(o.work(0), 72);
    o.ping = table().event_create(o.work(1), 72);
    o.pong = table().event_create(o.work(2), 72);
    table().mutex_lock(o.mutex);
    table().mutex_lock(o.mutex);
    for (int i = 0; i < 3; ++i)
      table().event_signal(o.ping);  // nobody waits: they are one signal
    table().event_wait(o.ping);
    // Turn by turn: a lost signal hangs; one that was not used up, or counts twice, breaks the count.
    void* thread = table().thread_create(o.work(3), 72, Objects::partner, &o, "name longer than fits");
    for (int i = 0; i < Objects::kTurns; ++i) {
      EXPECT_EQ(o.turns++, 2 * i);
      table().event_signal(o.ping);
      table().event_wait(o.pong);
    }
    // Three contend, so that more than one can be asleep.
    std::thread third([&o] { o.count(); });
    EXPECT_EQ(table().mutex_unlock(o.mutex), 1);
    EXPECT_EQ(o.counter, 0) << "one unlock too early";
    EXPECT_EQ(table().mutex_unlock(o.mutex), 1);
    o.count();
    third.join();
    table().thread_join(thread);
    EXPECT_EQ(o.counter, 6000);
    EXPECT_EQ(table().mutex_unlock(o.mutex), 0) << "not the owner";
    table().event_destroy(o.pong);
    table().event_destroy(o.ping);
    table().mutex_destroy(o.mutex);
    for (std::size_t i = 0; i < o.storage.size(); ++i)
      EXPECT_TRUE((i + 80 - start) % 80 < 72 || o.storage[i] == 0xEE) << "written outside, at " << i;
  }
  std::array<std::uint8_t, 72> work;
  for (const auto& [area, size] : {std::pair<void*, std::int32_t>{nullptr, 72}, {work.data(), 3}, {work.data(), -72}}) {
    EXPECT_EQ(table().mutex_create(area, size), nullptr);
    EXPECT_EQ(table().event_create(area, size), nullptr);
    EXPECT_EQ(table().thread_create(area, size, Objects::partner, nullptr, ""), nullptr);
  }
}

TEST(BridgeServices, ClockKeepsTimeAndItsUsersPairUp) {
  using Ticks = std::chrono::duration<std::uint64_t, std::ratio<1, 10'000'000>>;
  const auto steady = [] {
    return std::chrono::duration_cast<Ticks>(std::chrono::steady_clock::now().time_since_epoch()).count();
  };
  ASSERT_EQ(table().timer_get_frequency(), Ticks::period::den);
  const std::uint64_t outer = steady(), start = table().timer_get_count(), inner = steady();
  table().thread_sleep(20);
  const std::uint64_t inner_end = steady(), end = table().timer_get_count(), outer_end = steady();
  const std::uint64_t elapsed = table().timer_get_elapsed(start, end);
  EXPECT_LE(elapsed, outer_end - outer + 2) << "two ticks for rounding";
  EXPECT_GE(elapsed + 2, inner_end - inner);
  EXPECT_GT(elapsed, 0U);

  const std::uint32_t before = clock_users();
  table().timer_initialize();
  table().timer_initialize();
  table().timer_finalize();
  EXPECT_EQ(clock_users(), before + 1);
  table().timer_finalize();
  EXPECT_EQ(clock_users(), before);
}

TEST(BridgeServices, UserAllocatorCallsWhatWasRegistered) {
  ZelUserAllocatorRecord record{};
  EXPECT_EQ(table().user_allocator_is_set(&record), 0U);
  EXPECT_EQ(table().user_allocator_allocate(&record, 8), nullptr);
  table().user_allocator_free(&record, &record);  // no release function: nothing to call
  std::uint32_t size = 0;
  void* freed = nullptr;
  table().user_allocator_set_malloc(
      &record,
      [](void* object, std::uint32_t bytes) -> void* {
        *static_cast<std::uint32_t*>(object) = bytes;
        return object;
      },
      &size);
  EXPECT_NE(table().user_allocator_is_set(&record), 0U);
  table().user_allocator_set_free(
      &record, [](void* object, void* pointer) { *static_cast<void**>(object) = pointer; }, &freed);
  EXPECT_EQ(table().user_allocator_allocate(&record, 123), &size);
  EXPECT_EQ(size, 123U);
  table().user_allocator_free(&record, &size);
  EXPECT_EQ(freed, &size);
}

}  // namespace
}  // namespace zel::host
