#include "scripted_host.h"

#include <algorithm>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>

#include "zel_rtc_speech_to_text.h"

namespace {

using Bytes = std::unique_ptr<std::uint8_t[]>;

ScriptedHost* g_host;

// Carries out an order to fail.
bool Fails(int slot) {
  return g_host->fail_slot == slot && --g_host->fail_in == 0;
}

// ---- Objects in work areas of 72 bytes: the area is filled, and must be found so when the object goes

constexpr std::uint8_t kFill = 0xA5;

struct HostObject {
  HostObject(LiveKind object_kind, void* object_work)
      : kind(object_kind), work(static_cast<std::uint8_t*>(object_work)) {
    std::fill_n(work, 72, kFill);
    ++g_host->live[kind];
  }
  ~HostObject() {
    EXPECT_TRUE(std::all_of(work, work + 72, [](std::uint8_t byte) { return byte == kFill; })) << "overwritten";
    --g_host->live[kind];
  }
  LiveKind kind;
  std::uint8_t* work;
};

struct Mutex : HostObject {
  explicit Mutex(void* area) : HostObject(kMutexes, area) {}
  int number = g_host->mutexes_made++;
  std::recursive_mutex mutex;
};

struct Event : HostObject {
  explicit Event(void* area) : HostObject(kEvents, area) {}
  bool signalled = false;
};

struct Thread : HostObject {
  Thread(void* area, ZelThreadEntry entry, void* argument) : HostObject(kThreads, area), thread(entry, argument) {}
  std::thread thread;
};

template <typename Object, typename... Arguments>
void* Make(void* work, std::int32_t size, Arguments... arguments) {
  EXPECT_EQ(size, 72);
  return work != nullptr ? new Object(work, arguments...) : nullptr;
}

thread_local std::vector<Mutex*> t_held;

void Lock(void* handle) {
  auto* mutex = static_cast<Mutex*>(handle);
  mutex->mutex.lock();
  if (!t_held.empty() && std::ranges::count(t_held, mutex) == 0) {
    const std::lock_guard lock(g_host->guard);
    g_host->lock_pairs.emplace_back(t_held.back()->number, mutex->number);
    EXPECT_EQ(std::ranges::count(g_host->lock_pairs, std::pair(mutex->number, t_held.back()->number)), 0);
  }
  t_held.push_back(mutex);
}

std::int32_t Unlock(void* handle) {
  EXPECT_TRUE(!t_held.empty() && t_held.back() == handle) << "unlocked out of order, or without a lock";
  if (!t_held.empty()) t_held.pop_back();
  static_cast<Mutex*>(handle)->mutex.unlock();
  return 0;
}

void DestroyMutex(void* handle) {
  EXPECT_EQ(std::ranges::count(t_held, handle), 0) << "destroyed while locked";
  delete static_cast<Mutex*>(handle);
}

std::mutex g_event_mutex;
std::condition_variable g_event_changed;
int g_waiting, g_pending;

void Wait(void* handle) {
  auto* event = static_cast<Event*>(handle);
  std::unique_lock lock(g_event_mutex);
  ++g_waiting;
  g_event_changed.notify_all();
  g_event_changed.wait(lock, [event] { return event->signalled; });
  event->signalled = false;
  --g_pending;
  --g_waiting;
}

void Signal(void* handle) {
  auto* event = static_cast<Event*>(handle);
  const std::lock_guard lock(g_event_mutex);
  if (!std::exchange(event->signalled, true)) ++g_pending;
  g_event_changed.notify_all();
}

void Join(void* handle) {
  const std::unique_ptr<Thread> thread(static_cast<Thread*>(handle));
  thread->thread.join();
}

// ---- Reports

void Report(std::uint32_t level, const std::string& text) {
  const std::lock_guard lock(g_host->guard);
  g_host->reports.push_back(std::to_string(level) + " " + text);
}

std::string Render(const char* format, std::initializer_list<std::uint64_t> arguments) {
  std::string text = format;
  const char* at = format;
  for (const std::uint64_t argument : arguments) {
    at = std::strchr(at, '%') != nullptr ? std::strchr(at, '%') : "%d";
    at += std::strcspn(at, "sxud");
    char number[32];
    std::snprintf(number, sizeof(number), *at == 'x' ? "%llx" : "%lld", static_cast<long long>(argument));
    text += std::string("|") + (*at == 's' ? reinterpret_cast<const char*>(argument) : number);
  }
  return text;
}

// ---- Carving and sizes: the calculator allows for the worst start of every block

void* Carve(ZelFixedAllocatorRecord* record, std::uint32_t size, std::uint32_t alignment) {
  g_host->carvings[record->host_state[2]].emplace_back(size, alignment);
  const std::uint64_t start = (record->host_state[0] + alignment - 1) & ~std::uint64_t{alignment - 1};
  if (start + size > record->host_state[1]) return nullptr;
  record->host_state[0] = start + size;
  return reinterpret_cast<void*>(start);
}

void AddSize(ZelWorkSizeRecord* record, std::int64_t size, std::uint32_t count, std::uint32_t alignment) {
  const bool sound = size >= 0 && size <= INT32_MAX;
  const std::uint64_t bytes = sound ? static_cast<std::uint64_t>(size) * count : UINT64_MAX / 4;
  g_host->calculations[record->host_state[1]].emplace_back(bytes, alignment);
  record->host_state[0] = std::min(record->host_state[0] + bytes + alignment - 1, UINT64_MAX / 4);
}

// ---- Ring buffer: every chunk is a block of its own, so that a sanitizer sees each step beyond it

struct Chunk {
  Bytes bytes;
  std::uint32_t size, out, lane;
};

struct Ring {
  Ring() { ++g_host->live[kRings]; }
  ~Ring() { --g_host->live[kRings]; }
  std::mutex mutex;
  std::uint32_t free = g_host->ring_bytes;
  std::vector<std::uint8_t> data;  // lane 1
  std::map<const std::uint8_t*, Chunk, std::greater<>> chunks;
};

void Acquire(void* handle, std::uint32_t lane, std::uint32_t size, ZelRingBufferChunk* chunk) {
  auto* ring = static_cast<Ring*>(handle);
  if (Fails(SLOT(ring_buffer_acquire))) size = 0;
  if (g_host->acquire_limit) size = std::min(size, g_host->acquire_limit(lane, size));
  const std::lock_guard lock(ring->mutex);
  size = std::min(size, lane == 0 ? ring->free : static_cast<std::uint32_t>(ring->data.size()));
  *chunk = {nullptr, 0};
  if (size == 0) return;
  Bytes bytes(new std::uint8_t[size]);
  *chunk = {bytes.get(), size};
  if (lane == 0) {
    ring->free -= size;
  } else {
    std::copy_n(ring->data.begin(), size, bytes.get());
    ring->data.erase(ring->data.begin(), ring->data.begin() + size);
  }
  ring->chunks.emplace(chunk->data, Chunk{std::move(bytes), size, size, lane});
}

// Puts a chunk, or a part of one, behind what `lane` holds, or in front of it when it is released.
void PutIn(void* handle, std::uint32_t lane, const ZelRingBufferChunk* chunk, bool release) {
  auto* ring = static_cast<Ring*>(handle);
  const std::lock_guard lock(ring->mutex);
  if (chunk->size == 0) return;
  const auto found = ring->chunks.lower_bound(chunk->data);
  ASSERT_TRUE(found != ring->chunks.end() && chunk->data + chunk->size <= found->first + found->second.size &&
              chunk->size <= found->second.out && (!release || lane == found->second.lane))
      << "not a chunk of this lane that is out";
  if (lane == 0) {
    ring->free += chunk->size;
  } else {
    ring->data.insert(release ? ring->data.begin() : ring->data.end(), chunk->data, chunk->data + chunk->size);
  }
  found->second.out -= chunk->size;
  if (found->second.out == 0) ring->chunks.erase(found);
}

void Reset(void* handle) {
  auto* ring = static_cast<Ring*>(handle);
  const std::lock_guard lock(ring->mutex);
  ring->free = g_host->ring_bytes;
  ring->data.clear();
  ring->chunks.clear();
}

std::uint32_t DataSize(void* handle, std::uint32_t lane) {
  auto* ring = static_cast<Ring*>(handle);
  const std::lock_guard lock(ring->mutex);
  return lane == 0 ? ring->free : static_cast<std::uint32_t>(ring->data.size());
}

void Split(const ZelRingBufferChunk* source, std::uint32_t size, ZelRingBufferChunk* head, ZelRingBufferChunk* tail) {
  const ZelRingBufferChunk whole = *source;
  EXPECT_LE(size, whole.size);
  *tail = {whole.data + size, whole.size - size};
  *head = {whole.data, size};
}

// ---- The services, and the table in front of them that records and fails

using Fixed = ZelFixedAllocatorRecord;
using Sizes = ZelWorkSizeRecord;
using User = ZelUserAllocatorRecord;

// An entry of the table that records its calls and can fail in front of the service.
template <int kSlot, typename Result, typename... Arguments>
struct Entry {
  using Service = Result (*)(Arguments...);
  static inline Service service;
  Service& entry;
  void operator=(Service real) {
    service = real;
    entry = [](Arguments... arguments) -> Result {
      if (std::this_thread::get_id() == g_host->owner) g_host->calls.push_back(kSlot);
      if constexpr (!std::is_void_v<Result>) {
        constexpr auto kFailure = std::is_same_v<Result, std::int32_t> ? Result(-1) : Result{};
        if (Fails(kSlot)) return kFailure;
      }
      return service(arguments...);
    };
  }
};

template <int kSlot, typename Result, typename... Arguments>
Entry<kSlot, Result, Arguments...> MakeEntry(Result (*&entry)(Arguments...)) {
  return {entry};
}

#define SERVICE(name) MakeEntry<SLOT(name)>(table.name)

BridgeTable MakeTable() {
  BridgeTable table{};
  SERVICE(atomic_load) = [](const std::uint32_t* word) { return __atomic_load_n(word, __ATOMIC_SEQ_CST); };
  SERVICE(atomic_store) = [](std::uint32_t* word, std::uint32_t value) {
    __atomic_store_n(word, value, __ATOMIC_SEQ_CST);
  };
  SERVICE(string_copy) = [](char* to, std::uint64_t capacity, const char* from) {
    return std::snprintf(to, capacity, "%s", from);
  };
  SERVICE(string_length) = [](const char* text) { return static_cast<std::uint32_t>(std::strlen(text)); };
  SERVICE(string_format) = [](char* to, std::uint64_t capacity, const char* format, va_list list) {
    return std::vsnprintf(to, capacity, format, list);
  };
  SERVICE(memory_copy) = [](void* to, std::uint64_t capacity, const void* from, std::uint64_t size) {
    if (size <= capacity && size > 0) std::memcpy(to, from, size);
    return size <= capacity ? 4u : 0u;
  };
  SERVICE(memory_clear) = [](void* to, std::uint64_t size) { std::memset(to, 0, size); };
  SERVICE(mutex_create) = [](void* work, std::int32_t size) { return Make<Mutex>(work, size); };
  SERVICE(mutex_destroy) = DestroyMutex;
  SERVICE(mutex_lock) = Lock;
  SERVICE(mutex_unlock) = Unlock;
  SERVICE(err_notify) = [](std::uint32_t level, const char* text) { Report(level, text); };
  SERVICE(err_notify1) = [](std::uint32_t level, const char* format, std::uint64_t a) {
    Report(level, Render(format, {a}));
  };
  SERVICE(err_notify2) = [](std::uint32_t level, const char* format, std::uint64_t a, std::uint64_t b) {
    Report(level, Render(format, {a, b}));
  };
  SERVICE(err_notify_param) = [](std::uint32_t level, const char* identifier, std::int32_t code) {
    Report(level, std::string(identifier) + " " + std::to_string(code));
    return 0;
  };
  SERVICE(fixed_allocator_create) = [](void* work, std::int32_t size, Fixed* record) {
    const auto start = reinterpret_cast<std::uintptr_t>(work);
    *record = {{start, start + static_cast<std::uint32_t>(size), g_host->carvings.size()}};
    g_host->carvings.emplace_back();
    ++g_host->live[kCarvings];
  };
  SERVICE(fixed_allocator_destroy) = [](Fixed*) { --g_host->live[kCarvings]; };
  SERVICE(fixed_allocator_allocate) = Carve;
  SERVICE(work_size_begin) = [](Sizes* record) {
    *record = {{0, g_host->calculations.size(), 0}};
    g_host->calculations.emplace_back();
  };
  SERVICE(work_size_add) = AddSize;
  SERVICE(work_size_total) = [](Sizes* record) {
    return record->host_state[0] > INT32_MAX ? -1 : static_cast<std::int32_t>(record->host_state[0]);
  };
  SERVICE(user_allocator_set_malloc) = [](User*, ZelUserMallocFunction function, void* object) {
    g_host->user_malloc = {function, object};
  };
  SERVICE(user_allocator_set_free) = [](User*, ZelUserFreeFunction function, void* object) {
    g_host->user_free = {function, object};
  };
  SERVICE(user_allocator_allocate) = [](User*, std::uint32_t size) {
    ++g_host->live[kUserBlocks];
    return g_host->user_malloc.first(g_host->user_malloc.second, size);
  };
  SERVICE(user_allocator_free) = [](User*, void* block) {
    --g_host->live[kUserBlocks];
    g_host->user_free.first(g_host->user_free.second, block);
  };
  SERVICE(user_allocator_is_set) = [](User*) {
    return g_host->user_malloc.first != nullptr && g_host->user_free.first != nullptr ? 7u : 0u;
  };
  SERVICE(ring_buffer_calculate_work_size) = [](const ZelRingBufferConfig* config) {
    EXPECT_TRUE(config->reserved == 0 && config->buffer_size == 163840 && config->max_chunk_size == 81920);
    EXPECT_TRUE(config->max_chunks == 8 && std::strcmp(config->name, "") == 0);
    return 64;
  };
  SERVICE(ring_buffer_create) = [](const ZelRingBufferConfig*, void* work, std::uint32_t size) -> void* {
    return work != nullptr && size >= 64 ? new Ring : nullptr;
  };
  SERVICE(ring_buffer_destroy) = [](void* ring) { delete static_cast<Ring*>(ring); };
  SERVICE(ring_buffer_reset) = Reset;
  SERVICE(ring_buffer_acquire) = Acquire;
  SERVICE(ring_buffer_release) = [](void* ring, std::uint32_t lane, const ZelRingBufferChunk* chunk) {
    PutIn(ring, lane, chunk, true);
  };
  SERVICE(ring_buffer_commit) = [](void* ring, std::uint32_t lane, const ZelRingBufferChunk* chunk) {
    PutIn(ring, lane, chunk, false);
  };
  SERVICE(ring_buffer_get_data_size) = DataSize;
  SERVICE(ring_buffer_split_chunk) = Split;
  SERVICE(thread_create) = [](void* work, std::int32_t size, ZelThreadEntry entry, void* argument, const char* name) {
    EXPECT_STREQ(name, "ZEL Wreq Async Thread");
    return Make<Thread>(work, size, entry, argument);
  };
  SERVICE(thread_join) = Join;
  SERVICE(thread_sleep) = [](std::uint32_t milliseconds) {
    EXPECT_EQ(milliseconds, 1u);
    g_host->on_sleep ? g_host->on_sleep() : std::this_thread::yield();
  };
  SERVICE(timer_initialize) = [] { ++g_host->timer_depth; };
  SERVICE(timer_finalize) = [] { EXPECT_GE(--g_host->timer_depth, 0); };
  SERVICE(timer_get_count) = [] { return g_host->clock.load(); };
  SERVICE(timer_get_frequency) = [] { return g_host->frequency.load(); };
  SERVICE(timer_get_elapsed) = [](std::uint64_t start, std::uint64_t current) { return current - start; };
  SERVICE(event_create) = [](void* work, std::int32_t size) { return Make<Event>(work, size); };
  SERVICE(event_destroy) = [](void* event) { delete static_cast<Event*>(event); };
  SERVICE(event_wait) = Wait;
  SERVICE(event_signal) = Signal;
  return table;
}

}  // namespace

Reports Refusals(const std::string& numbers) {
  Reports reports;
  std::istringstream stream(numbers);
  for (std::string number; stream >> number;)
    reports.push_back("0 E2022" + number + " -2");
  return reports;
}

const BridgeTable& ScriptedHost::Table() {
  static const BridgeTable table = MakeTable();
  return table;
}

ScriptedHost::ScriptedHost() {
  g_host = this;
  const ZelBaseRtcBridgeInterface record = {ZEL_BASE_RTC_BRIDGE_VERSION, &Table()};
  zelRtcSpeechToText_SetBaseRtcBridgeInterface(&record);
}

ScriptedHost::~ScriptedHost() {
  EXPECT_EQ(TakeReports(), Reports{});
  EXPECT_EQ(Live(), (std::array<int, kLiveKinds>{}));
  EXPECT_EQ(timer_depth, 0);
}

Reports ScriptedHost::TakeReports() {
  const std::lock_guard lock(guard);
  return std::exchange(reports, {});
}

void ScriptedHost::Fail(int slot, int n) {
  fail_in = n;
  fail_slot = slot;
}

bool ScriptedHost::Failed() {
  fail_slot = -1;
  return fail_in <= 0;
}

int ScriptedHost::Count(int slot) const {
  return static_cast<int>(std::ranges::count(calls, slot));
}

void ScriptedHost::ForgetCalls() {
  calls.clear();
  calculations.clear();
  carvings.clear();
}

std::array<int, kLiveKinds> ScriptedHost::Live() const {
  std::array<int, kLiveKinds> counts{};
  std::ranges::copy(live, counts.begin());
  return counts;
}

void ScriptedHost::WaitForWorkers() {
  std::unique_lock lock(g_event_mutex);
  g_event_changed.wait(lock, [this] { return g_waiting == live[kThreads] && g_pending == 0; });
}
