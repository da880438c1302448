#include "bridge_services.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <utility>

#include "carving.h"
#include "reports.h"
#include "ring_buffer.h"
#include "sync.h"

namespace zel::host {
namespace {

// ---- Atomics, strings, memory ---------------------------------------------------------------------------------------

[[gnu::tls_model("initial-exec")]] thread_local const WordWatch* innermost_watch = nullptr;

// Not inlined: loads that nobody watches would pay for its registers.
[[gnu::noinline]] std::uint32_t watched_load(const std::uint32_t* word) noexcept {
  innermost_watch->see(word);
  return __atomic_load_n(word, __ATOMIC_SEQ_CST);
}

std::uint32_t atomic_load(const std::uint32_t* word) noexcept {
  if (innermost_watch != nullptr) [[unlikely]]
    return watched_load(word);
  return __atomic_load_n(word, __ATOMIC_SEQ_CST);
}
void atomic_store(std::uint32_t* word, std::uint32_t value) noexcept {
  __atomic_store_n(word, value, __ATOMIC_SEQ_CST);
}

std::int32_t string_copy(char* destination, std::uint64_t capacity, const char* source) noexcept {
  if (destination == nullptr || capacity == 0) return 0;
  if (source == nullptr) source = "";
  const std::size_t length = ::strnlen(source, capacity);
  const bool whole = length < capacity;
  const std::size_t count = whole ? length : capacity - 1;
  std::memcpy(destination, source, count);
  destination[count] = '\0';
  return whole ? 1 : 0;
}

std::uint32_t string_length(const char* string) noexcept {
  const std::size_t length = string != nullptr ? std::strlen(string) : 0;
  return static_cast<std::uint32_t>(std::min<std::size_t>(length, std::numeric_limits<std::uint32_t>::max()));
}

[[gnu::format(printf, 3, 0)]] std::int32_t string_format(char* destination, std::uint64_t capacity, const char* format,
                                                         va_list arguments) noexcept {
  if (destination == nullptr || capacity == 0) return 0;
  const int length = format != nullptr ? std::vsnprintf(destination, capacity, format, arguments) : -1;
  if (length < 0) destination[0] = '\0';
  return length >= 0 && static_cast<std::uint64_t>(length) < capacity ? 1 : 0;
}

std::uint32_t memory_copy(void* destination, std::uint64_t capacity, const void* source, std::uint64_t size) noexcept {
  if (size > capacity) return 0;
  if (size > 0) std::memcpy(destination, source, size);
  return 1;
}

void memory_clear(void* destination, std::uint64_t size) noexcept {
  if (size > 0) std::memset(destination, 0, size);
}

// ---- Mutexes, threads, events, clock --------------------------------------------------------------------------------

void* mutex_create(void* work, std::int32_t work_size) noexcept {
  return build_in<RecursiveMutex>(work, work_size);
}
void mutex_destroy(void* mutex) noexcept {
  std::destroy_at(static_cast<RecursiveMutex*>(mutex));
}
void mutex_lock(void* mutex) noexcept {
  static_cast<RecursiveMutex*>(mutex)->lock();
}
std::int32_t mutex_unlock(void* mutex) noexcept {
  return static_cast<RecursiveMutex*>(mutex)->unlock() ? 1 : 0;
}

void* thread_create(void* work, std::int32_t work_size, ZelThreadEntry entry, void* argument,
                    const char* name) noexcept {
  auto* thread = entry != nullptr ? build_in<Thread>(work, work_size) : nullptr;
  return thread != nullptr && thread->start(entry, argument, name) ? thread : nullptr;
}
void thread_join(void* thread) noexcept {
  static_cast<Thread*>(thread)->join();
  std::destroy_at(static_cast<Thread*>(thread));
}

void* event_create(void* work, std::int32_t work_size) noexcept {
  return build_in<AutoResetEvent>(work, work_size);
}
void event_destroy(void* event) noexcept {
  std::destroy_at(static_cast<AutoResetEvent*>(event));
}
void event_wait(void* event) noexcept {
  static_cast<AutoResetEvent*>(event)->wait();
}
void event_signal(void* event) noexcept {
  static_cast<AutoResetEvent*>(event)->signal();
}

std::atomic<std::uint32_t> clock_user_count{0};

void timer_initialize() noexcept {
  clock_user_count.fetch_add(1);
}
void timer_finalize() noexcept {
  std::uint32_t users = clock_user_count.load();
  while (users > 0 && !clock_user_count.compare_exchange_weak(users, users - 1)) {
  }
}
std::uint64_t timer_get_frequency() noexcept {
  return kClockFrequency;
}
std::uint64_t timer_get_elapsed(std::uint64_t start, std::uint64_t current) noexcept {
  return current - start;
}

// ---- Reports --------------------------------------------------------------------------------------------------------

void err_notify(std::uint32_t level, const char* message) noexcept {
  send_report(level, 0, message, {});
}
void err_notify1(std::uint32_t level, const char* format, std::uint64_t argument) noexcept {
  send_report(level, 0, format, std::array{argument});
}
void err_notify2(std::uint32_t level, const char* format, std::uint64_t argument1, std::uint64_t argument2) noexcept {
  send_report(level, 0, format, std::array{argument1, argument2});
}
std::int32_t err_notify_param(std::uint32_t level, const char* identifier, std::int32_t code) noexcept {
  send_report(level, code, identifier, {});
  return code;
}

// ---- The application's allocator ------------------------------------------------------------------------------------

struct UserAllocator {
  ZelUserMallocFunction allocate = nullptr;
  void* allocate_object = nullptr;
  ZelUserFreeFunction free = nullptr;
  void* free_object = nullptr;
  std::uint64_t reserved = 0;
};
static_assert(sizeof(UserAllocator) == sizeof(ZelUserAllocatorRecord));

// Function and object belong together: they are read and written under one lock, and called without it.
WordLock user_allocator_lock;

UserAllocator read_user_allocator(const ZelUserAllocatorRecord* record) noexcept {
  std::lock_guard hold(user_allocator_lock);
  return std::bit_cast<UserAllocator>(*record);
}

void user_allocator_set_malloc(ZelUserAllocatorRecord* record, ZelUserMallocFunction function, void* object) noexcept {
  std::lock_guard hold(user_allocator_lock);
  auto allocator = std::bit_cast<UserAllocator>(*record);
  allocator.allocate = function;
  allocator.allocate_object = object;
  *record = std::bit_cast<ZelUserAllocatorRecord>(allocator);
}
void user_allocator_set_free(ZelUserAllocatorRecord* record, ZelUserFreeFunction function, void* object) noexcept {
  std::lock_guard hold(user_allocator_lock);
  auto allocator = std::bit_cast<UserAllocator>(*record);
  allocator.free = function;
  allocator.free_object = object;
  *record = std::bit_cast<ZelUserAllocatorRecord>(allocator);
}
void* user_allocator_allocate(ZelUserAllocatorRecord* record, std::uint32_t size) noexcept {
  const UserAllocator allocator = read_user_allocator(record);
  return allocator.allocate != nullptr ? allocator.allocate(allocator.allocate_object, size) : nullptr;
}
void user_allocator_free(ZelUserAllocatorRecord* record, void* pointer) noexcept {
  const UserAllocator allocator = read_user_allocator(record);
  if (allocator.free != nullptr && pointer != nullptr) allocator.free(allocator.free_object, pointer);
}
std::uint32_t user_allocator_is_set(ZelUserAllocatorRecord* record) noexcept {
  return read_user_allocator(record).allocate != nullptr ? 1 : 0;
}

// ---- Ring buffers ---------------------------------------------------------------------------------------------------

RingBuffer& ring_of(void* ring) {
  return *static_cast<RingBuffer*>(ring);
}

std::int32_t ring_buffer_calculate_work_size(const ZelRingBufferConfig* config) noexcept {
  return config != nullptr ? RingBuffer::calculate_work_size(*config) : -1;
}
void* ring_buffer_create(const ZelRingBufferConfig* config, void* work, std::uint32_t work_size) noexcept {
  return config != nullptr ? RingBuffer::create(*config, work, work_size) : nullptr;
}
void ring_buffer_destroy(void* ring) noexcept {
  std::destroy_at(&ring_of(ring));
}
void ring_buffer_reset(void* ring) noexcept {
  ring_of(ring).reset();
}
void ring_buffer_acquire(void* ring, std::uint32_t lane, std::uint32_t size, ZelRingBufferChunk* chunk) noexcept {
  *chunk = ring_of(ring).acquire(lane, size);
}
void ring_buffer_release(void* ring, std::uint32_t lane, const ZelRingBufferChunk* chunk) noexcept {
  ring_of(ring).release(lane, *chunk);
}
void ring_buffer_commit(void* ring, std::uint32_t lane, const ZelRingBufferChunk* chunk) noexcept {
  ring_of(ring).commit(lane, *chunk);
}
std::uint32_t ring_buffer_get_data_size(void* ring, std::uint32_t lane) noexcept {
  return ring_of(ring).data_size(lane);
}
void ring_buffer_split_chunk(const ZelRingBufferChunk* source, std::uint32_t size, ZelRingBufferChunk* head,
                             ZelRingBufferChunk* tail) noexcept {
  RingBuffer::split(*source, size, *head, *tail);
}

constexpr BridgeTable make_table() {
  BridgeTable table{};
  table.atomic_load = atomic_load;
  table.atomic_store = atomic_store;
  table.string_copy = string_copy;
  table.string_length = string_length;
  table.string_format = string_format;
  table.memory_copy = memory_copy;
  table.memory_clear = memory_clear;
  table.mutex_create = mutex_create;
  table.mutex_destroy = mutex_destroy;
  table.mutex_lock = mutex_lock;
  table.mutex_unlock = mutex_unlock;
  table.err_notify = err_notify;
  table.err_notify1 = err_notify1;
  table.err_notify2 = err_notify2;
  table.err_notify_param = err_notify_param;
  table.fixed_allocator_create = fixed_allocator_create;
  table.fixed_allocator_destroy = fixed_allocator_destroy;
  table.fixed_allocator_allocate = fixed_allocator_allocate;
  table.work_size_begin = work_size_begin;
  table.work_size_add = work_size_add;
  table.work_size_total = work_size_total;
  table.user_allocator_set_malloc = user_allocator_set_malloc;
  table.user_allocator_set_free = user_allocator_set_free;
  table.user_allocator_allocate = user_allocator_allocate;
  table.user_allocator_free = user_allocator_free;
  table.user_allocator_is_set = user_allocator_is_set;
  table.ring_buffer_calculate_work_size = ring_buffer_calculate_work_size;
  table.ring_buffer_create = ring_buffer_create;
  table.ring_buffer_destroy = ring_buffer_destroy;
  table.ring_buffer_reset = ring_buffer_reset;
  table.ring_buffer_acquire = ring_buffer_acquire;
  table.ring_buffer_release = ring_buffer_release;
  table.ring_buffer_commit = ring_buffer_commit;
  table.ring_buffer_get_data_size = ring_buffer_get_data_size;
  table.ring_buffer_split_chunk = ring_buffer_split_chunk;
  table.thread_create = thread_create;
  table.thread_join = thread_join;
  table.thread_sleep = sleep_milliseconds;
  table.timer_initialize = timer_initialize;
  table.timer_finalize = timer_finalize;
  table.timer_get_count = clock_count;
  table.timer_get_frequency = timer_get_frequency;
  table.timer_get_elapsed = timer_get_elapsed;
  table.event_create = event_create;
  table.event_destroy = event_destroy;
  table.event_wait = event_wait;
  table.event_signal = event_signal;
  return table;
}

constexpr BridgeTable kTable = make_table();
constexpr ZelBaseRtcBridgeInterface kInterface{ZEL_BASE_RTC_BRIDGE_VERSION, &kTable};

}  // namespace

const ZelBaseRtcBridgeInterface& bridge_interface() noexcept {
  return kInterface;
}

std::uint32_t clock_users() noexcept {
  return clock_user_count.load();
}

WordWatch::WordWatch(std::function<void(const std::uint32_t*)> see) noexcept
    : see_(std::move(see)), outer_(std::exchange(innermost_watch, this)) {}

WordWatch::~WordWatch() {
  innermost_watch = outer_;
}

}  // namespace zel::host
