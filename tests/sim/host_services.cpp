#include "host_services.h"

#include <algorithm>
#include <memory>
#include <string_view>

#include "bridge_services.h"
#include "ledger.h"
#include "reports.h"
#include "room.h"
#include "web.h"
#include "world.h"

namespace sim {

namespace {

constexpr std::uint8_t kFill = 0xA5;
constexpr std::size_t kGuard = 16;

// A mutex, event or thread: lives in 72 bytes that are the host's, and must be found so when it goes.
struct HostObject {
  explicit HostObject(void* area) : work(static_cast<std::uint8_t*>(area)), live(Room::LiveOf(Me().room)) {
    std::fill_n(work, ZEL_HOST_OBJECT_WORK_SIZE, kFill);
    ++live;
  }
  ~HostObject() {
    const bool kept = std::all_of(work, work + ZEL_HOST_OBJECT_WORK_SIZE, [](std::uint8_t b) { return b == kFill; });
    SIM_CHECK(kept, "the work area of a host object was overwritten");
    --live;
  }
  std::uint8_t* const work;
  int& live;
};

// Locks are taken by rising rank, and nothing goes with the registry's.
enum class Rank { kRegistry, kSession, kRecognizer };

}  // namespace

class Mutex : public HostObject {
 public:
  Mutex(void* area, Rank lock_rank) : HostObject(area), rank(lock_rank) {}
  const Rank rank;
  const Fiber* owner = nullptr;
  int depth = 0;
};

struct Event : HostObject {
  using HostObject::HostObject;
  bool signalled = false;
};

namespace {

struct Thread : HostObject {
  using HostObject::HostObject;
  Fiber* fiber = nullptr;
};

// Whether a service refuses now.
bool Refuses() {
  World& world = TheWorld();
  return Me().room != nullptr ? Me().room->setting_up && OneIn(world.knobs.refuse_one_in)
                              : world.setting_up && OneIn(world.knobs.refuse_one_in);
}

// A scheduling point that touches `address`, which tells the recognizer an update works on.
void Point(const void* address) {
  TheWorld().scheduler.Point();
  Caller& me = Me();
  if (me.room == nullptr || me.role == Role::kWorker) return;
  if (Seat* seat = me.updating && address != nullptr ? me.room->SeatOf(address) : nullptr) me.seat = seat;
  if (me.seat != nullptr && !me.room->setting_up) me.seat->CheckBalance();
}

// What blocks or takes long: never in the audio path, nor on a worker but for its event.
void MayBlock(const char* service, std::size_t most_locks) {
  const Caller& me = Me();
  SIM_CHECK(!me.in_frame, "%s in the audio path", service);
  SIM_CHECK(me.held.size() <= most_locks, "%s while %zu locks are held", service, me.held.size());
}

// ---- Mutexes, events, threads

void Lock(void* handle) {
  auto* mutex = static_cast<Mutex*>(handle);
  Point(mutex->work);
  Caller& me = Me();
  SIM_CHECK(!me.in_frame && me.role != Role::kWorker, "a lock on a path that takes none");
  const Fiber* self = &TheWorld().scheduler.current();
  if (mutex->owner != self) {
    const bool in_order =
        me.held.empty() || (me.held.back()->rank == Rank::kSession && mutex->rank == Rank::kRecognizer);
    SIM_CHECK(in_order, "locks out of order: rank %d inside %d", static_cast<int>(mutex->rank),
              static_cast<int>(me.held.back()->rank));
    while (mutex->owner != nullptr)
      TheWorld().scheduler.Block(mutex);
    mutex->owner = self;
  }
  ++mutex->depth;
  me.held.push_back(mutex);
}

std::int32_t Unlock(void* handle) {
  auto* mutex = static_cast<Mutex*>(handle);
  Caller& me = Me();
  SIM_CHECK(!me.held.empty() && me.held.back() == mutex, "unlocked out of order, or without a lock");
  me.held.pop_back();
  if (--mutex->depth > 0) return 1;
  mutex->owner = nullptr;
  TheWorld().scheduler.Wake(mutex);
  Point(mutex->work);
  return 1;
}

void* CreateMutex(void* work, std::int32_t size) {
  SIM_CHECK(size == ZEL_HOST_OBJECT_WORK_SIZE, "the work area of a mutex");
  if (work == nullptr || Refuses()) return nullptr;
  const Room* room = Me().room;
  return new Mutex(work, room == nullptr ? Rank::kRegistry : room->seats.empty() ? Rank::kSession : Rank::kRecognizer);
}

void DestroyMutex(void* handle) {
  auto* mutex = static_cast<Mutex*>(handle);
  SIM_CHECK(mutex->owner == nullptr, "a mutex is destroyed while it is locked");
  delete mutex;
}

void* CreateEvent(void* work, std::int32_t size) {
  SIM_CHECK(size == ZEL_HOST_OBJECT_WORK_SIZE, "the work area of an event");
  if (work == nullptr || Refuses()) return nullptr;
  auto* event = new Event(work);
  Me().room->seats.back()->wake = event;
  return event;
}

void Wait(void* handle) {
  auto* event = static_cast<Event*>(handle);
  const Caller& me = Me();
  SIM_CHECK(me.role == Role::kWorker && event == me.seat->wake, "a wait by another thread than the worker");
  WebExchangeOver(*me.seat);
  Point(nullptr);
  while (!event->signalled)
    TheWorld().scheduler.Block(event);
  event->signalled = false;
}

void Signal(void* handle) {
  auto* event = static_cast<Event*>(handle);
  Point(event->work);
  if (Me().updating) Me().seat->Started();
  event->signalled = true;
  TheWorld().scheduler.Wake(event);
}

void* CreateThread(void* work, std::int32_t size, ZelThreadEntry entry, void* argument, const char* name) {
  SIM_CHECK(size == ZEL_HOST_OBJECT_WORK_SIZE && std::string_view(name) == "ZEL Wreq Async Thread", "a thread");
  MayBlock("thread creation", 0);
  if (work == nullptr || Refuses()) return nullptr;
  auto* thread = new Thread(work);
  Seat* seat = Me().room->seats.back().get();
  seat->end = work;
  thread->fiber = TheWorld().scheduler.Spawn(
      "worker " + seat->name(), {.role = Role::kWorker, .room = Me().room, .seat = seat}, [entry, argument, seat] {
        entry(argument);
        WebExchangeOver(*seat);
      });
  Point(work);
  return thread;
}

void Join(void* handle) {
  const std::unique_ptr<Thread> thread(static_cast<Thread*>(handle));
  MayBlock("a join", 0);
  TheWorld().scheduler.Join(thread->fiber);
}

void SleepFor(std::uint32_t milliseconds) {
  MayBlock("a sleep", 1);  // a reset waits under the session's mutex
  SIM_CHECK(milliseconds == 1, "a sleep of %u ms", milliseconds);
  // "About that time": some systems round up to their clock tick.
  TheWorld().scheduler.Sleep(milliseconds * kMillisecond + Below(32 * kMillisecond));
}

// ---- Memory

const BridgeTable& Reference() {
  return *zel::host::bridge_interface().table;
}

void* Carve(ZelFixedAllocatorRecord* record, std::uint32_t size, std::uint32_t alignment) {
  if (Refuses()) return nullptr;
  void* block = Reference().fixed_allocator_allocate(record, size, alignment);
  SIM_CHECK(block != nullptr, "a work area of the size asked for does not do");
  return block;
}

void* UserAllocate(ZelUserAllocatorRecord* record, std::uint32_t size) {
  MayBlock("the application's allocator", 0);
  return Refuses() ? nullptr : Reference().user_allocator_allocate(record, size);
}

void UserFree(ZelUserAllocatorRecord* record, void* pointer) {
  MayBlock("the application's release function", 0);
  Reference().user_allocator_free(record, pointer);
}

// ---- Ring buffers

constexpr std::int32_t kRingWork = 64;

void* CreateRing(const ZelRingBufferConfig* config, void* work, std::uint32_t size) {
  SIM_CHECK(config->reserved == 0 && config->buffer_size == 163840 && config->max_chunk_size == kMaxBody &&
                config->max_chunks == kMaxWaiting && *config->name == '\0' && size == kRingWork,
            "a ring buffer of another kind");
  if (work == nullptr || Refuses()) return nullptr;
  Ring* ring = Me().room->AddSeat(config->buffer_size);
  Me().seat = Me().room->seats.back().get();
  return ring;
}

void DestroyRing(void* ring) {
  SIM_CHECK(static_cast<Ring*>(ring)->Out(0) + static_cast<Ring*>(ring)->Out(1) == 0, "destroyed with chunks out");
  --static_cast<Ring*>(ring)->seat().live;
}

Ring& RingOf(void* handle) {
  auto* ring = static_cast<Ring*>(handle);
  Me().seat = &ring->seat();
  Point(nullptr);
  return *ring;
}

// ---- Clock

std::uint64_t Count() {
  SIM_CHECK(TheWorld().timer_depth > 0, "the clock is read while it is stopped");
  Point(nullptr);
  constexpr std::uint64_t kStart = std::uint64_t{1} << 62;
  const Micros now = Now();
  return kStart + now / kSecond * TheWorld().knobs.frequency + now % kSecond * TheWorld().knobs.frequency / kSecond;
}

// Strings, memory and sizes are the reference host's.
BridgeTable MakeTable() {
  using Fixed = ZelFixedAllocatorRecord;
  using Chunk = ZelRingBufferChunk;
  BridgeTable table = Reference();
  table.atomic_load = [](const std::uint32_t* word) {
    Point(word);
    return *word;
  };
  table.atomic_store = [](std::uint32_t* word, std::uint32_t value) {
    Point(word);
    *word = value;
    Point(word);
  };
  table.mutex_create = CreateMutex;
  table.mutex_destroy = DestroyMutex;
  table.mutex_lock = Lock;
  table.mutex_unlock = Unlock;
  table.err_notify = [](std::uint32_t level, const char* text) { TakeMessage(level, text, {}); };
  table.err_notify1 = [](std::uint32_t level, const char* format, std::uint64_t a) { TakeMessage(level, format, {a}); };
  table.err_notify2 = [](std::uint32_t level, const char* format, std::uint64_t a, std::uint64_t b) {
    TakeMessage(level, format, {a, b});
  };
  table.err_notify_param = [](std::uint32_t level, const char* identifier, std::int32_t code) {
    TakeRefusal(level, identifier, code);
    return 0;
  };
  table.fixed_allocator_create = [](void* work, std::int32_t size, Fixed* record) {
    Reference().fixed_allocator_create(work, size, record);
    ++Room::LiveOf(Me().room);
  };
  table.fixed_allocator_destroy = [](Fixed*) { --Room::LiveOf(Me().room); };
  table.fixed_allocator_allocate = Carve;
  table.user_allocator_allocate = UserAllocate;
  table.user_allocator_free = UserFree;
  table.ring_buffer_calculate_work_size = [](const ZelRingBufferConfig*) { return Refuses() ? -1 : kRingWork; };
  table.ring_buffer_create = CreateRing;
  table.ring_buffer_destroy = DestroyRing;
  table.ring_buffer_reset = [](void* ring) { RingOf(ring).Reset(); };
  table.ring_buffer_acquire = [](void* ring, std::uint32_t lane, std::uint32_t size, Chunk* chunk) {
    *chunk = RingOf(ring).Acquire(lane, size);
  };
  table.ring_buffer_release = [](void* ring, std::uint32_t lane, const Chunk* chunk) {
    RingOf(ring).Release(lane, *chunk);
  };
  table.ring_buffer_commit = [](void* ring, std::uint32_t lane, const Chunk* chunk) {
    RingOf(ring).Commit(lane, *chunk);
  };
  table.ring_buffer_get_data_size = [](void* ring, std::uint32_t lane) { return RingOf(ring).Size(lane); };
  table.thread_create = CreateThread;
  table.thread_join = Join;
  table.thread_sleep = SleepFor;
  table.timer_initialize = [] { ++TheWorld().timer_depth; };
  table.timer_finalize = [] { --TheWorld().timer_depth; };
  table.timer_get_count = Count;
  table.timer_get_frequency = [] { return TheWorld().knobs.frequency; };
  table.event_create = CreateEvent;
  table.event_destroy = [](void* event) { delete static_cast<Event*>(event); };
  table.event_wait = Wait;
  table.event_signal = Signal;
  return table;
}

}  // namespace

const BridgeTable& HostTable() {
  static const BridgeTable table = MakeTable();
  return table;
}

WorkArea::WorkArea(std::int32_t size, std::uint32_t misalignment)
    : size_(size), start_(misalignment), bytes_(start_ + static_cast<std::size_t>(size) + kGuard, kFill) {}

WorkArea::~WorkArea() {
  const auto end = bytes_.end() - kGuard;
  SIM_CHECK(std::all_of(end, bytes_.end(), [](std::uint8_t b) { return b == kFill; }), "written behind the work area");
}

}  // namespace sim
