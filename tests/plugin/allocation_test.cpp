// Nothing is allocated while a session runs. Every allocation of the process passes a counter here.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "raw_host.h"

namespace {
// Of this thread. Atomic because compilers think they know that allocating changes no variable.
thread_local std::atomic<std::uint64_t> heap_calls{0};
}  // namespace

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

// The sanitizers' allocator has hooks instead; their header does not come with every compiler.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void*, std::size_t),
                                                         void (*)(const volatile void*));

namespace {
const int installed = __sanitizer_install_malloc_and_free_hooks([](const volatile void*, std::size_t) { ++heap_calls; },
                                                                [](const volatile void*) { ++heap_calls; });
bool is_everyones_malloc() {
  return true;
}
}  // namespace

#else

// In front of the C library's own, which has them under these second names too.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);

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
[[gnu::visibility("default")]] void free(void* block) {
  ++heap_calls;
  __libc_free(block);
}
}

namespace {
constexpr int installed = 1;
bool is_everyones_malloc() {
  return dlsym(RTLD_DEFAULT, "malloc") == reinterpret_cast<void*>(&malloc);
}
}  // namespace

#endif

namespace {

using Allocations = RawHost;

TEST_F(Allocations, NoneWhileASessionRuns) {
  ASSERT_GT(installed, 0);
  void* speaker = add_member(1, "speaker");
  void* idler = add_member(2, "idler");

  // The counter works, and is what the library and its libraries find under the name.
  const std::uint64_t at_start = heap_calls;
  void* volatile block = std::malloc(64);
  std::free(block);
  ASSERT_EQ(heap_calls - at_start, 2U);
  ASSERT_TRUE(is_everyones_malloc());

  static const char packet[200] = {0x58};
  const std::uint64_t before = heap_calls;
  std::uint32_t taken = 0;
  // Utterances too short to be posted, and much silence.
  for (int i = 0; i < 10'000; ++i) {
    taken += put_frame(speaker, i % 11 < 4 ? packet : nullptr, sizeof packet);
    taken += put_frame(idler, nullptr, 0);
    session_call<void>(0);
    if (member_call<void*>(speaker, 3) != nullptr || member_call<void*>(idler, 3) != nullptr) break;
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
