#include "host_services.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "bridge_services.h"
#include "expected_reports.h"
#include "room.h"
#include "web.h"
#include "world.h"

namespace sim {

// A mutex, event or thread: lives in 72 bytes that are the host's, and must be found so when it goes.
struct HostObject {
  // Locks are taken by rising rank, and nothing goes with the registry's.
  enum Rank { kRegistry, kSession, kRecognizer };

  explicit HostObject(void* area) : bytes(static_cast<std::uint8_t*>(area)) {
    std::memset(bytes, kFill, ZEL_HOST_OBJECT_WORK_SIZE);
    ++live;
  }
  ~HostObject() {
    const bool kept = std::all_of(bytes, bytes + ZEL_HOST_OBJECT_WORK_SIZE, [](std::uint8_t b) { return b == kFill; });
    SIM_CHECK(kept, "bytes of the host's, or behind a work area, are overwritten");
    --live;
  }

  static constexpr std::uint8_t kFill = 0xA5;
  std::uint8_t* const bytes;
  int& live = Room::LiveOf(Me().room);
  const Rank rank = Me().room == nullptr ? kRegistry : Me().room->seats.empty() ? kSession : kRecognizer;
  const Fiber* owner = nullptr;  // of a mutex
  int depth = 0;                 // ... how often it has locked it
  bool signalled = false;        // an event
  Fiber* fiber = nullptr;        // of a thread
};

namespace {

Scheduler& TheScheduler() {
  return TheWorld().scheduler;
}

// A scheduling point that touches `address`, which tells the recognizer an update works on.
void Point(const void* address) {
  TheScheduler().Point();
  Caller& me = Me();
  if (me.room == nullptr || me.worker) return;
  if (Seat* seat = me.updating && address != nullptr ? me.room->SeatOf(address) : nullptr) me.seat = seat;
  if (me.seat != nullptr) me.seat->CheckBalance();
}

// What blocks or takes long: never in the audio path, nor under more locks than that.
void MayBlock(const char* service, std::size_t most_locks) {
  SIM_CHECK(!Me().in_frame && Me().held.size() <= most_locks, "%s in the audio path or under a lock", service);
}

// ---- Mutexes, events, threads

HostObject* Of(void* handle) {
  return static_cast<HostObject*>(handle);
}

void* Create(void* work, std::int32_t size) {
  return work == nullptr || size != ZEL_HOST_OBJECT_WORK_SIZE ? nullptr : new HostObject(work);
}

void Destroy(void* handle) {
  SIM_CHECK(Of(handle)->owner == nullptr, "a mutex is destroyed while it is locked");
  delete Of(handle);
}

void Lock(void* handle) {
  auto* mutex = Of(handle);
  Point(mutex->bytes);
  Caller& me = Me();
  SIM_CHECK(!me.in_frame && !me.worker, "a lock on a path that takes none");
  const Fiber* self = &TheScheduler().current();
  if (mutex->owner != self) {
    SIM_CHECK(
        me.held.empty() || (me.held.back()->rank == HostObject::kSession && mutex->rank == HostObject::kRecognizer),
        "locks out of order");
    while (mutex->owner != nullptr)
      TheScheduler().Block(mutex);
    mutex->owner = self;
  }
  ++mutex->depth;
  me.held.push_back(mutex);
}

std::int32_t Unlock(void* handle) {
  auto* mutex = Of(handle);
  Caller& me = Me();
  SIM_CHECK(!me.held.empty() && me.held.back() == mutex, "unlocked out of order, or without a lock");
  me.held.pop_back();
  if (--mutex->depth > 0) return 1;
  mutex->owner = nullptr;
  TheScheduler().Wake(mutex);
  Point(mutex->bytes);
  return 1;
}

void Wait(void* handle) {
  auto* event = Of(handle);
  SIM_CHECK(Me().worker, "a wait by another thread than a worker");
  WebExchangeOver(*Me().seat);
  Point(nullptr);
  while (!event->signalled)
    TheScheduler().Block(event);
  event->signalled = false;
}

void Signal(void* handle) {
  auto* event = Of(handle);
  Point(event->bytes);
  if (Me().updating) Me().seat->Started();
  event->signalled = true;
  TheScheduler().Wake(event);
}

void* CreateThread(void* work, std::int32_t size, ZelThreadEntry entry, void* argument, const char*) {
  MayBlock("thread creation", 0);
  auto* thread = static_cast<HostObject*>(Create(work, size));
  if (thread == nullptr) return nullptr;
  Seat* seat = Me().room->seats.back().get();
  seat->end = work;
  thread->fiber = TheScheduler().Spawn("worker " + seat->name, {.worker = true, .room = Me().room, .seat = seat}, [=] {
    entry(argument);
    WebExchangeOver(*seat);
  });
  Point(work);
  return thread;
}

void Join(void* handle) {
  MayBlock("a join", 0);
  TheScheduler().Join(Of(handle)->fiber);
  Destroy(handle);
}

void SleepFor(std::uint32_t milliseconds) {
  MayBlock("a sleep", 1);  // a reset waits under the session's mutex
  // "About that time": some systems round up to their clock tick.
  TheScheduler().Sleep(milliseconds * kMillisecond + Below(32 * kMillisecond));
}

std::uint64_t Count() {
  SIM_CHECK(TheWorld().timer_depth > 0, "the clock is read while it is stopped");
  Point(nullptr);
  const std::uint64_t frequency = TheWorld().knobs.frequency;
  constexpr std::uint64_t kStart = std::uint64_t{1} << 62;
  return kStart + Now() / kSecond * frequency + Now() % kSecond * frequency / kSecond;
}

// ---- Ring buffers

void* CreateRing(const ZelRingBufferConfig* config, void*, std::uint32_t) {
  return Me().seat = Me().room->AddSeat(config->buffer_size);
}

void DestroyRing(void* handle) {
  auto* seat = static_cast<Seat*>(handle);
  SIM_CHECK(seat->Out(0, false) + seat->Out(1, false) == 0, "destroyed with chunks out");
  --seat->live;
}

Seat& RingOf(void* handle) {
  SIM_CHECK(!Me().updating || !Me().held.empty(), "an update works outside the session's lock");
  Me().seat = static_cast<Seat*>(handle);
  Point(nullptr);
  return *Me().seat;
}

// Strings, memory, sizes and carving are the reference host's.
BridgeTable MakeTable() {
  using Chunk = ZelRingBufferChunk;
  BridgeTable table = *zel::host::bridge_interface().table;
  WatchReports(table);
  table.atomic_load = [](const std::uint32_t* word) {
    Point(word);
    return *word;
  };
  table.atomic_store = [](std::uint32_t* word, std::uint32_t value) {
    Point(word);
    *word = value;
    Point(word);
  };
  table.mutex_create = Create;
  table.mutex_destroy = Destroy;
  table.mutex_lock = Lock;
  table.mutex_unlock = Unlock;
  table.ring_buffer_calculate_work_size = [](const ZelRingBufferConfig*) { return 64; };
  table.ring_buffer_create = CreateRing;
  table.ring_buffer_destroy = DestroyRing;
  table.ring_buffer_reset = [](void* ring) { RingOf(ring).ResetRing(); };
  table.ring_buffer_acquire = [](void* ring, std::uint32_t lane, std::uint32_t size, Chunk* chunk) {
    *chunk = RingOf(ring).Acquire(lane, size);
  };
  table.ring_buffer_release = [](void* ring, std::uint32_t lane, const Chunk* chunk) {
    RingOf(ring).TakeBack(lane, *chunk, true);
  };
  table.ring_buffer_commit = [](void* ring, std::uint32_t lane, const Chunk* chunk) {
    RingOf(ring).TakeBack(lane, *chunk, false);
  };
  table.ring_buffer_get_data_size = [](void* ring, std::uint32_t lane) { return RingOf(ring).RingSize(lane); };
  table.thread_create = CreateThread;
  table.thread_join = Join;
  table.thread_sleep = SleepFor;
  table.timer_initialize = [] { ++TheWorld().timer_depth; };
  table.timer_finalize = [] { --TheWorld().timer_depth; };
  table.timer_get_count = Count;
  table.timer_get_frequency = [] { return TheWorld().knobs.frequency; };
  table.event_create = Create;
  table.event_destroy = Destroy;
  table.event_wait = Wait;
  table.event_signal = Signal;
  return table;
}

struct Area {
  std::vector<std::uint8_t> bytes;
  HostObject end{bytes.data() + bytes.size() - ZEL_HOST_OBJECT_WORK_SIZE};  // a guard
};
std::map<void*, std::unique_ptr<Area>> g_areas;

}  // namespace

const BridgeTable& HostTable() {
  static const BridgeTable table = MakeTable();
  return table;
}

void* Allocate(void*, std::uint32_t size) {
  MayBlock("the application's allocator", 0);
  const std::size_t start = Below(8);
  std::unique_ptr<Area> area(
      new Area{std::vector<std::uint8_t>(start + size + ZEL_HOST_OBJECT_WORK_SIZE, HostObject::kFill)});
  void* memory = area->bytes.data() + start;
  g_areas.emplace(memory, std::move(area));
  return memory;
}

void Release(void*, void* memory) {
  MayBlock("the application's release function", 0);
  SIM_CHECK(g_areas.erase(memory) == 1, "memory is returned that is not out");
}

}  // namespace sim
