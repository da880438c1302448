// Row "pool". A unit: one packet taken and its last reference dropped, by an owner whom the release calls back, as a
// recognizer does for each text. Four are out at a time.
//
// Inputs: bare, nobody else is there; locked, the release calls the owner back under its mutex, which is the reference
// host's, taken by the services of the host. A recognizer's pool is locked.
#include "packet_pool.h"

#include <array>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "bridge.h"
#include "cases.h"
#include "packet_ref.h"

namespace bench {
namespace {

constexpr std::uint32_t kPackets = 16;
constexpr std::size_t kOut = 4;
constexpr std::int64_t kRounds = 64;

// The owner's part of a release, never inlined.
[[gnu::noipa]] void give_text_back(void* context, PacketRef*) {
  ++*static_cast<std::uint64_t*>(context);
}

std::uint64_t texts_back = 0;

// Everything begins a cache line: otherwise the heap decides, and a release takes up to 10 % more or less.
struct alignas(64) Line {
  std::array<std::uint8_t, 64> bytes;
};

// The owner's mutex, if it has one.
template <bool kLocked>
class Owner {
 public:
  Owner() {
    if constexpr (kLocked)
      require((mutex_ = zelMutex_Create(work_.data(), ZEL_HOST_OBJECT_WORK_SIZE)) != nullptr, "mutex");
  }
  ~Owner() {
    if constexpr (kLocked) zelMutex_Destroy(mutex_);
  }
  Owner(const Owner&) = delete;
  Owner& operator=(const Owner&) = delete;

  void* mutex() const { return mutex_; }
  void lock() {
    if constexpr (kLocked) zelMutex_Lock(mutex_);
  }
  void unlock() {
    if constexpr (kLocked) zelMutex_Unlock(mutex_);
  }

 private:
  alignas(Line) std::array<std::byte, ZEL_HOST_OBJECT_WORK_SIZE> work_{};
  void* mutex_ = nullptr;
};

template <bool kLocked>
class Plugin {
 public:
  Plugin() {
    const std::int32_t size = zelSttPacketPool_CalculateWorkSize(kPackets);
    work_.resize(static_cast<std::size_t>(size) / sizeof(Line) + 1);
    pool_ = zelSttPacketPool_Create(kPackets, work_.data(), size);
    require(pool_ != nullptr, "pool");
    zelSttPacketPool_SetMutex(pool_, owner_.mutex());
  }
  PacketRef* take() { return zelSttPacketPool_Allocate(pool_, give_text_back, &texts_back); }
  static void drop(PacketRef* ref) { zelPacketRef_Release(ref); }

 private:
  Owner<kLocked> owner_;
  std::vector<Line> work_;
  SttPacketPool* pool_;
};

// The same records in the same shape - packets on a stack, envelopes in a ring, a callback in each - where nothing is
// checked that cannot be and the compiler sees everything at once.
template <bool kLocked>
class Limit {
 public:
  Limit() {
    for (SttPacket& packet : packets_)
      stack_[count_++] = &packet;
    for (PacketRef& ref : refs_)
      queue_.items[queue_.write_index++] = &ref;
  }

  PacketRef* take() {
    if (count_ == 0 || queue_.read_index == queue_.write_index) return nullptr;
    SttPacket* packet = stack_[--count_];
    packet->field_mask = 0;
    packet->slot_marks = 0;
    for (std::uint32_t& flag : packet->field_flags)
      flag = 0;
    packet->release_callback = give_text_back;
    packet->release_context = &texts_back;
    auto* ref = static_cast<PacketRef*>(queue_.items[queue_.read_index]);
    if (++queue_.read_index == kPackets) {
      queue_.read_index = 0;
      queue_.write_index -= kPackets;
    }
    *ref = {packet, 0, 0, 1, &queue_, return_packet, this};
    return ref;
  }

  static void drop(PacketRef* ref) {
    if (--ref->ref_count > 0) return;
    if (ref->release_callback != nullptr) ref->release_callback(ref->release_context, ref);
    PtrQueue* queue = ref->owner_queue;
    const std::uint32_t at = queue->write_index;
    queue->items[at < kPackets ? at : at - kPackets] = ref;
    queue->write_index = at + 1;
  }

 private:
  static void return_packet(void* context, PacketRef* ref) {
    auto* limit = static_cast<Limit*>(context);
    const std::lock_guard hold(limit->owner_);
    SttPacket* packet = ref->payload;
    if (packet->release_callback != nullptr) packet->release_callback(packet->release_context, ref);
    limit->stack_[limit->count_++] = packet;
  }

  // The pool's own words lie in front of the packets, as in the plug-in's.
  alignas(Line) PtrQueue queue_ = {items_.data(), kPackets, 0, 0, 0};
  std::uint32_t count_ = 0;
  std::array<SttPacket, kPackets> packets_{};
  std::array<PacketRef, kPackets> refs_{};
  std::array<SttPacket*, kPackets> stack_{};
  std::array<void*, kPackets> items_{};
  Owner<kLocked> owner_;
};

// The limit behind two functions that the compiler does not see into, as a library's are.
template <bool kLocked>
class Called {
 public:
  [[gnu::noipa]] PacketRef* take() { return pool_.take(); }
  [[gnu::noipa]] static void drop(PacketRef* ref) { Limit<kLocked>::drop(ref); }

 private:
  Limit<kLocked> pool_;
};

// Packet and envelope, from the heap.
struct HeapText {
  SttPacket packet;
  PacketRef ref;
};

template <bool kLocked>
class Malloc {
 public:
  PacketRef* take() {
    auto* text = static_cast<HeapText*>(std::malloc(sizeof(HeapText)));
    if (text == nullptr) return nullptr;
    text->packet.field_mask = 0;
    text->packet.slot_marks = 0;
    for (std::uint32_t& flag : text->packet.field_flags)
      flag = 0;
    text->packet.release_callback = give_text_back;
    text->packet.release_context = &texts_back;
    text->ref = {&text->packet, 0, 0, 1, nullptr, nullptr, text};
    return &text->ref;
  }
  void drop(PacketRef* ref) {
    if (--ref->ref_count > 0) return;
    {
      const std::lock_guard hold(owner_);
      ref->payload->release_callback(ref->payload->release_context, ref);
    }
    std::free(ref->release_context);
  }

 private:
  Owner<kLocked> owner_;
};

template <bool kLocked>
class MakeShared {
 public:
  std::shared_ptr<SttPacket> take() {
    auto packet = std::make_shared<SttPacket>();
    packet->release_callback = give_text_back;
    packet->release_context = &texts_back;
    return packet;
  }
  void drop(std::shared_ptr<SttPacket>& packet) {
    {
      const std::lock_guard hold(owner_);
      packet->release_callback(packet->release_context, nullptr);
    }
    packet.reset();
  }

 private:
  Owner<kLocked> owner_;
};

template <typename Contestant>
void add(Cases& cases, const std::string& contestant, const std::string& input) {
  auto pool = std::make_shared<Contestant>();
  cases.push_back({"pool/" + contestant + "/" + input, kRounds * std::int64_t{kOut}, [pool] {
                     for (std::int64_t round = 0; round < kRounds; ++round) {
                       std::array<decltype(pool->take()), kOut> out;
                       for (auto& text : out) {
                         text = pool->take();
                         asm volatile("" : : "r"(&text) : "memory");
                       }
                       for (auto& text : out)
                         pool->drop(text);
                     }
                   }});
  const std::uint64_t before = texts_back;
  cases.back().run();
  require(texts_back - before == kRounds * kOut, "pool: texts");
}

template <bool kLocked>
void add_all(Cases& cases, const std::string& input) {
  add<Plugin<kLocked>>(cases, "plugin", input);
  add<Limit<kLocked>>(cases, "limit", input);
  add<Called<kLocked>>(cases, "called", input);
  add<Malloc<kLocked>>(cases, "malloc", input);
  add<MakeShared<kLocked>>(cases, "make_shared", input);
}

}  // namespace

void add_pool_cases(Cases& cases) {
  add_all<false>(cases, "bare");
  add_all<true>(cases, "locked");
}

}  // namespace bench
