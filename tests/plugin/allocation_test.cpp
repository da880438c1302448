// Nothing is allocated while a session runs. Every allocation of the process, its libraries' included, passes a counter
// here. The sanitizers keep malloc for themselves, and the test to other builds.
#include <atomic>
#include <cstdlib>

#include "raw_host.h"

namespace {
// Of this thread. Atomic because compilers think they know that allocating changes no variable.
thread_local std::atomic<std::uint64_t> heap_calls{0};
}  // namespace

// In front of the C library's own, which has them under these second names too.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);

[[gnu::visibility("default")]] void* malloc(std::size_t size) {
  ++heap_calls;
  return __libc_malloc(size);
}
[[gnu::visibility("default")]] void* calloc(std::size_t count, std::size_t size) {
  ++heap_calls;
  return __libc_calloc(count, size);
}
[[gnu::visibility("default")]] void* realloc(void* block, std::size_t size) {
  ++heap_calls;
  return __libc_realloc(block, size);
}
}

namespace {

using Allocations = RawHost;

TEST_F(Allocations, NoneWhileASessionRuns) {
  ASSERT_EQ(dlsym(RTLD_DEFAULT, "malloc"), reinterpret_cast<void*>(&malloc)) << "the libraries find another one";
  void* speaker = add_member(1, "speaker");
  void* idler = add_member(2, "idler");

  static const char packet[200] = {0x58};
  const std::uint64_t before = heap_calls;
  std::uint32_t taken = 0;
  // Utterances too short to be posted, and much silence.
  for (int i = 0; i < 10'000; ++i) {
    taken += put_frame(speaker, i % 11 < 4 ? packet : nullptr, sizeof packet);
    taken += put_frame(idler, nullptr, 0);
    session<void>(0);
    if (member<void*>(speaker, 3) != nullptr || member<void*>(idler, 3) != nullptr) break;
  }
  // Utterances that are kept, and one without end, beside no update.
  for (int i = 0; i < 8 * 60 + 7; ++i)
    taken += put_frame(speaker, i % 60 < 50 ? packet : nullptr, sizeof packet);
  for (int i = 0; i < 350; ++i)
    taken += put_frame(idler, packet, sizeof packet);
  EXPECT_EQ(heap_calls - before, 0U);
  EXPECT_EQ(taken, 20'000U + 487 + 350);
}

}  // namespace
