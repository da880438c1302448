// Row "pool". A unit: one packet taken and its last reference dropped, by an owner whom the release calls back, as a
// recognizer does for each text. Four are out at a time.
#include "packet_pool.h"

#include <array>
#include <memory>

#include "cases.h"
#include "packet_ref.h"

namespace bench_parts {
namespace {

constexpr std::uint32_t kPackets = 16;
constexpr std::size_t kOut = 4;
constexpr std::int64_t kRounds = 64;

// The owner's part of a release, never inlined.
[[gnu::noipa]] void GiveTextBack(void* context, PacketRef*) {
  ++*static_cast<std::uint64_t*>(context);
}

std::uint64_t texts_back = 0;

// Without a mutex, as is the limit: the host's mutex is not the pool's cost.
class Plugin {
 public:
  Plugin() {
    work_.resize(static_cast<std::size_t>(zelSttPacketPool_CalculateWorkSize(kPackets)));
    pool_ = zelSttPacketPool_Create(kPackets, work_.data(), static_cast<std::int32_t>(work_.size()));
    Require(pool_ != nullptr, "pool");
  }
  PacketRef* Take() { return zelSttPacketPool_Allocate(pool_, GiveTextBack, &texts_back); }
  static void Drop(PacketRef* ref) { zelPacketRef_Release(ref); }

 private:
  std::vector<std::uint8_t> work_;
  SttPacketPool* pool_;
};

// The same records in the same shape - packets on a stack, envelopes in a ring, a callback in each - where nothing is
// checked that cannot be and the compiler sees everything at once.
class Limit {
 public:
  Limit() {
    for (SttPacket& packet : packets_)
      stack_[count_++] = &packet;
    for (PacketRef& ref : refs_)
      queue_.items[queue_.write_index++] = &ref;
  }

  PacketRef* Take() {
    if (count_ == 0 || queue_.read_index == queue_.write_index) return nullptr;
    SttPacket* packet = stack_[--count_];
    packet->field_mask = 0;
    packet->slot_marks = 0;
    for (std::uint32_t& flag : packet->field_flags)
      flag = 0;
    packet->release_callback = GiveTextBack;
    packet->release_context = &texts_back;
    auto* ref = static_cast<PacketRef*>(queue_.items[queue_.read_index]);
    if (++queue_.read_index == kPackets) {
      queue_.read_index = 0;
      queue_.write_index -= kPackets;
    }
    *ref = {packet, 0, 0, 1, &queue_, ReturnPacket, this};
    return ref;
  }

  static void Drop(PacketRef* ref) {
    if (--ref->ref_count > 0) return;
    if (ref->release_callback != nullptr) ref->release_callback(ref->release_context, ref);
    PtrQueue* queue = ref->owner_queue;
    const std::uint32_t at = queue->write_index;
    queue->items[at < kPackets ? at : at - kPackets] = ref;
    queue->write_index = at + 1;
  }

 private:
  static void ReturnPacket(void* context, PacketRef* ref) {
    auto* limit = static_cast<Limit*>(context);
    SttPacket* packet = ref->payload;
    if (packet->release_callback != nullptr) packet->release_callback(packet->release_context, ref);
    limit->stack_[limit->count_++] = packet;
  }

  std::array<SttPacket, kPackets> packets_{};
  std::array<PacketRef, kPackets> refs_{};
  std::array<SttPacket*, kPackets> stack_{};
  std::uint32_t count_ = 0;
  std::array<void*, kPackets> items_{};
  PtrQueue queue_ = {items_.data(), kPackets, 0, 0, 0};
};

// Packet and envelope, from the heap.
struct HeapText {
  SttPacket packet;
  PacketRef ref;
};

class Malloc {
 public:
  static PacketRef* Take() {
    auto* text = static_cast<HeapText*>(std::malloc(sizeof(HeapText)));
    if (text == nullptr) return nullptr;
    text->packet.field_mask = 0;
    text->packet.slot_marks = 0;
    for (std::uint32_t& flag : text->packet.field_flags)
      flag = 0;
    text->packet.release_callback = GiveTextBack;
    text->packet.release_context = &texts_back;
    text->ref = {&text->packet, 0, 0, 1, nullptr, nullptr, text};
    return &text->ref;
  }
  static void Drop(PacketRef* ref) {
    if (--ref->ref_count > 0) return;
    ref->payload->release_callback(ref->payload->release_context, ref);
    std::free(ref->release_context);
  }
};

class MakeShared {
 public:
  static std::shared_ptr<SttPacket> Take() {
    auto packet = std::make_shared<SttPacket>();
    packet->release_callback = GiveTextBack;
    packet->release_context = &texts_back;
    return packet;
  }
  static void Drop(std::shared_ptr<SttPacket>& packet) {
    packet->release_callback(packet->release_context, nullptr);
    packet.reset();
  }
};

template <typename Contestant>
void Add(Cases& cases, const std::string& contestant) {
  auto pool = std::make_shared<Contestant>();
  cases.push_back({"pool/" + contestant, kRounds * std::int64_t{kOut}, [pool] {
                     for (std::int64_t round = 0; round < kRounds; ++round) {
                       std::array<decltype(pool->Take()), kOut> out;
                       for (auto& text : out) {
                         text = pool->Take();
                         asm volatile("" : : "r"(&text) : "memory");
                       }
                       for (auto& text : out)
                         pool->Drop(text);
                     }
                   }});
  const std::uint64_t before = texts_back;
  cases.back().run();
  Require(texts_back - before == kRounds * kOut, "pool: texts");
}

}  // namespace

void AddPoolCases(Cases& cases) {
  Add<Plugin>(cases, "plugin");
  Add<Limit>(cases, "limit");
  Add<Malloc>(cases, "malloc");
  Add<MakeShared>(cases, "make_shared");
}

}  // namespace bench_parts
