#include "bridge_services.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstring>
#include <limits>
#include <string>
#include <thread>

namespace zel::host {
namespace {

const BridgeTable& table() {
  return *bridge_interface().table;
}

[[gnu::format(printf, 3, 4)]] void format(char* destination, std::uint64_t capacity, const char* text, ...) {
  va_list arguments;
  va_start(arguments, text);
  table().string_format(destination, capacity, text, arguments);
  va_end(arguments);
}

TEST(BridgeServices, TableIsComplete) {
  EXPECT_EQ(bridge_interface().version, ZEL_BASE_RTC_BRIDGE_VERSION);
  std::array<void*, 88> slots;
  static_assert(sizeof slots == sizeof(BridgeTable));
  std::memcpy(slots.data(), &table(), sizeof slots);
  int used = 0;
  for (const void* slot : slots)
    used += slot != nullptr ? 1 : 0;
  EXPECT_EQ(used, 47);
}

TEST(BridgeServices, StringsAreCutAndTerminated) {
  struct Case {
    const char* source;
    std::uint64_t capacity;
    const char* expected;  // null: nothing written
  };
  for (const Case& c : {Case{"hello", 8, "hello"}, Case{"hello", 6, "hello"}, Case{"hello", 5, "hell"},
                        Case{"hello", 1, ""}, Case{"", 1, ""}, Case{"hello", 0, nullptr}}) {
    std::string expected = c.expected == nullptr ? "" : std::string(c.expected) + '\0';
    expected.resize(8, '#');
    std::string copied(8, '#'), printed(8, '#');
    table().string_copy(copied.data(), c.capacity, c.source);
    format(printed.data(), c.capacity, "%s", c.source);
    EXPECT_EQ(copied.substr(c.capacity), expected.substr(c.capacity)) << c.source << " into " << c.capacity;
    EXPECT_EQ(printed.substr(c.capacity), expected.substr(c.capacity)) << c.source << " into " << c.capacity;
    EXPECT_STREQ(copied.c_str(), expected.c_str());
    EXPECT_STREQ(printed.c_str(), expected.c_str());
  }
  EXPECT_EQ(table().string_length("hello"), 5U);

  std::array<char, 4> target = {'a', 'b', 'c', 'd'};
  EXPECT_EQ(table().memory_copy(target.data(), 3, "wxyz", 4), 0U);
  EXPECT_EQ(std::string(target.data(), 4), "abcd");
  EXPECT_NE(table().memory_copy(target.data(), 4, "wxyz", 4), 0U);
  EXPECT_NE(table().memory_copy(target.data(), 0, nullptr, 0), 0U);
  table().memory_clear(target.data() + 1, 2);
  EXPECT_EQ(std::string(target.data(), 4), std::string("w\0\0z", 4));
}

// Work areas of host objects, beginning at each of the eight distances from a multiple of eight in turn.
class Place : public testing::Test {
 protected:
  template <typename Body>
  void at_every_start(Body body) {
    for (start_ = 0; start_ < 8; ++start_) {
      SCOPED_TRACE(start_);
      storage_.fill(0xEE);
      body();
    }
  }
  void* work(std::size_t object = 0) { return storage_.data() + 80 * object + start_; }
  static constexpr std::int32_t kSize = ZEL_HOST_OBJECT_WORK_SIZE;
  alignas(8) std::array<std::uint8_t, 320> storage_{};
  std::size_t start_ = 0;
};

TEST_F(Place, ObjectsStayInTheirBytesAndRefuseLess) {
  at_every_start([&] {
    void* mutex = table().mutex_create(work(0), kSize);
    void* event = table().event_create(work(1), kSize);
    table().mutex_lock(mutex);
    void* thread = table().thread_create(work(2), kSize, table().event_signal, event, "name longer than fits");
    table().event_wait(event);
    table().mutex_unlock(mutex);
    table().thread_join(thread);
    table().event_destroy(event);
    table().mutex_destroy(mutex);
    for (std::size_t i = 0; i < storage_.size(); ++i) {
      const std::size_t at = (i + 80 - start_) % 80;
      if (at >= static_cast<std::size_t>(kSize)) {
        EXPECT_EQ(storage_[i], 0xEE) << "written outside, at " << i;
      }
    }

    EXPECT_EQ(table().mutex_create(nullptr, kSize), nullptr);
    EXPECT_EQ(table().event_create(nullptr, kSize), nullptr);
    EXPECT_EQ(table().thread_create(nullptr, kSize, table().event_signal, nullptr, ""), nullptr);
    EXPECT_EQ(table().mutex_create(work(), 4), nullptr);
    EXPECT_EQ(table().event_create(work(), -72), nullptr);
  });
}

TEST_F(Place, MutexExcludesAndIsRecursive) {
  at_every_start([&] {
    void* mutex = table().mutex_create(work(), kSize);
    ASSERT_NE(mutex, nullptr);
    table().mutex_lock(mutex);
    table().mutex_lock(mutex);
    int counter = 0;
    std::atomic<int> started{0};
    std::array<std::thread, 3> threads;
    for (auto& thread : threads) {
      thread = std::thread([&] {
        ++started;
        for (int i = 0; i < 2000; ++i) {
          table().mutex_lock(mutex);
          ++counter;
          table().mutex_unlock(mutex);
        }
      });
    }
    while (started < 3)
      std::this_thread::yield();
    EXPECT_EQ(table().mutex_unlock(mutex), 1);
    EXPECT_EQ(counter, 0) << "one unlock too early";
    EXPECT_EQ(table().mutex_unlock(mutex), 1);
    for (auto& thread : threads)
      thread.join();
    EXPECT_EQ(counter, 6000);
    EXPECT_EQ(table().mutex_unlock(mutex), 0) << "not the owner";
    table().mutex_destroy(mutex);
  });
}

TEST_F(Place, EventKeepsOneSignalAndReleasesOneWaitEach) {
  at_every_start([&] {
    void* ping = table().event_create(work(0), kSize);
    void* pong = table().event_create(work(1), kSize);
    // Signals that nobody waits for are one signal.
    for (int i = 0; i < 3; ++i)
      table().event_signal(ping);
    table().event_wait(ping);
    std::uint32_t word = 0;
    std::thread later([&] {
      table().atomic_store(&word, 1);
      table().event_signal(ping);
    });
    table().event_wait(ping);
    EXPECT_EQ(table().atomic_load(&word), 1U) << "released by a signal that had been used up";
    later.join();

    // Turn by turn: a lost signal hangs, a doubled one breaks the count.
    constexpr int kTurns = 3000;
    int turns = 0;
    std::thread other([&] {
      for (int i = 0; i < kTurns; ++i) {
        table().event_wait(ping);
        ++turns;
        table().event_signal(pong);
      }
    });
    for (int i = 0; i < kTurns; ++i) {
      ASSERT_EQ(turns, i);
      table().event_signal(ping);
      table().event_wait(pong);
    }
    other.join();

    table().event_destroy(ping);
    table().event_destroy(pong);
  });
}

TEST(BridgeServices, ClockIsMonotonicAndItsUsersPairUp) {
  const std::uint64_t frequency = table().timer_get_frequency();
  EXPECT_GT(frequency, 1'000'000U);
  EXPECT_GT(std::numeric_limits<std::uint64_t>::max() / frequency / 86'400 / 365, 100U) << "years until it wraps";
  const std::uint64_t start = table().timer_get_count();
  table().thread_sleep(2);
  const std::uint64_t current = table().timer_get_count();
  EXPECT_GE(table().timer_get_elapsed(start, current), frequency / 500);

  const std::uint32_t before = clock_users();
  table().timer_initialize();
  table().timer_initialize();
  EXPECT_EQ(clock_users(), before + 2);
  table().timer_finalize();
  table().timer_finalize();
  EXPECT_EQ(clock_users(), before);
}

TEST(BridgeServices, UserAllocatorCallsWhatWasRegistered) {
  ZelUserAllocatorRecord record{};
  EXPECT_EQ(table().user_allocator_is_set(&record), 0U);
  EXPECT_EQ(table().user_allocator_allocate(&record, 8), nullptr);
  struct Calls {
    std::uint32_t size = 0;
    void* freed = nullptr;
  } malloc_calls, free_calls;
  table().user_allocator_set_malloc(
      &record,
      [](void* object, std::uint32_t size) -> void* {
        static_cast<Calls*>(object)->size = size;
        return object;
      },
      &malloc_calls);
  EXPECT_NE(table().user_allocator_is_set(&record), 0U);
  table().user_allocator_free(&record, &record);  // no release function: nothing to call
  table().user_allocator_set_free(
      &record, [](void* object, void* pointer) { static_cast<Calls*>(object)->freed = pointer; }, &free_calls);
  EXPECT_EQ(table().user_allocator_allocate(&record, 123), &malloc_calls);
  EXPECT_EQ(malloc_calls.size, 123U);
  table().user_allocator_free(&record, &malloc_calls);
  EXPECT_EQ(free_calls.freed, &malloc_calls);
}

}  // namespace
}  // namespace zel::host
