// The packet containers against standard ones.
//
// 1. A pool of n hands out n packets, the one that came back last first, each emptied and in an envelope with one
//    reference; the last release calls back exactly once, one release too many is reported and changes nothing.
// 2. A queue gives first in, first out, a stack last in, first out; both refuse null and what does not fit.
// 3. A packet keeps its first nine flags with their first values.
#include <deque>
#include <map>
#include <vector>

#include "fuzz.h"
#include "packet.h"
#include "packet_pool.h"
#include "packet_ref.h"
#include "plugin_host.h"
#include "ptr_queue.h"
#include "ptr_stack.h"

namespace {

constexpr std::uint32_t kFlags[] = {4, 32, 512, 1024, 1, 2, 8, 3, 0x80000000, 0xFFFFFFFF, 64, 0};

struct Out {
  PacketRef* ref;
  std::uint32_t references;
  std::map<std::uint32_t, std::uint64_t> fields;
};

// Aligned memory, full of garbage.
std::vector<std::uint64_t> Work(std::int32_t size) {
  return std::vector<std::uint64_t>((static_cast<std::size_t>(size) + 7) / 8, 0xEEEEEEEEEEEEEEEE);
}

void ExpectReports(std::size_t count) {
  static fuzz::PluginHost host;
  FUZZ_CHECK(host.take_reports().size() == count);
}

void CheckPacket(Out& out, fuzz::Input& input) {
  const std::uint32_t flag = kFlags[input.below(std::size(kFlags))];
  const std::uint64_t value = input.number();
  const bool full = out.fields.size() == STT_PACKET_SLOTS;
  const bool refused = flag == 0 ? !full : out.fields.contains(flag);
  const bool stored = zelPacketRef_SetUInt64(out.ref, flag, value) == 1;
  ExpectReports(refused ? 1 : 0);
  FUZZ_CHECK(stored == (!full && !refused));
  if (stored) out.fields[flag] = value;

  std::uint32_t mask = 0;
  for (const auto& [known, first] : out.fields) {
    mask |= known;
    FUZZ_CHECK(zelPacketRef_GetField(out.ref, known) == first);
  }
  FUZZ_CHECK(out.ref->payload->field_mask == mask && zelPacketRef_GetField(out.ref, 1 << 20) == 0);
}

void RunPool(fuzz::Input& input, std::uint32_t capacity) {
  const std::int32_t size = zelSttPacketPool_CalculateWorkSize(capacity);
  std::vector<std::uint64_t> work = Work(size);
  SttPacketPool* pool = zelSttPacketPool_Create(capacity, work.data(), size);
  FUZZ_CHECK(pool != nullptr);
  std::vector<SttPacket*> returned;
  const auto on_return = [](void* context, PacketRef* ref) {
    static_cast<std::vector<SttPacket*>*>(context)->push_back(zelPacketRef_GetPacket(ref));
  };
  std::vector<Out> outs;
  while (!input.empty()) {
    const std::uint32_t step = input.below(8);
    if (step < 3) {
      PacketRef* ref = zelSttPacketPool_Allocate(pool, on_return, &returned);
      FUZZ_CHECK((ref != nullptr) == (outs.size() < capacity));
      if (ref == nullptr) continue;
      FUZZ_CHECK(ref->ref_count == 1 && ref->payload->field_mask == 0);
      FUZZ_CHECK(returned.empty() || ref->payload == returned.back());
      if (!returned.empty()) returned.pop_back();
      for (const Out& other : outs)
        FUZZ_CHECK(ref != other.ref && ref->payload != other.ref->payload);
      outs.push_back({ref, 1, {}});
    }
    if (outs.empty()) continue;
    const auto at = outs.begin() + input.below(static_cast<std::uint32_t>(outs.size()));
    if (step < 5) {
      CheckPacket(*at, input);
    } else if (step == 5) {
      at->references = ++at->ref->ref_count;
    } else {
      PacketRef* ref = at->ref;
      const bool last = --at->references == 0;
      const std::size_t before = returned.size();
      zelPacketRef_Release(ref);
      FUZZ_CHECK(returned.size() == before + (last ? 1 : 0));
      if (!last) continue;
      outs.erase(at);
      ExpectReports(0);
      zelPacketRef_Release(ref);
      ExpectReports(1);
    }
  }
  zelSttPacketPool_Destroy(pool);
  ExpectReports(outs.empty() ? 0 : 1);
}

void RunPointers(fuzz::Input& input, std::uint32_t capacity) {
  const std::int32_t size = zelPtrQueue_CalculateWorkSize(capacity);
  std::vector<std::uint64_t> work = Work(size);
  PtrQueue* queue = zelPtrQueue_Create(capacity, work.data(), size);
  FUZZ_CHECK(queue != nullptr);
  std::vector<void*> items(capacity), stacked;
  PtrStack stack;
  zelPtrStack_Init(&stack, items.data(), capacity);
  std::deque<void*> queued;
  while (!input.empty()) {
    const std::uint32_t step = input.below(64);
    void* pointer = step < 4 ? nullptr : &work[step % work.size()];
    if (step % 2 == 0) {
      FUZZ_CHECK(zelPtrStack_Push(&stack, pointer) == (pointer != nullptr && stacked.size() < capacity ? 1 : 0));
      FUZZ_CHECK(zelPtrQueue_Push(queue, pointer) == (pointer != nullptr && queued.size() < capacity ? 1 : 0));
      ExpectReports(pointer == nullptr ? 1 : 0);
      if (pointer == nullptr) continue;
      if (stacked.size() < capacity) stacked.push_back(pointer);
      if (queued.size() < capacity) queued.push_back(pointer);
    } else if (step % 4 == 1) {
      FUZZ_CHECK(zelPtrStack_Pop(&stack) == (stacked.empty() ? nullptr : stacked.back()));
      if (!stacked.empty()) stacked.pop_back();
    } else {
      FUZZ_CHECK(zelPtrQueue_Pop(queue) == (queued.empty() ? nullptr : queued.front()));
      if (!queued.empty()) queued.pop_front();
    }
    FUZZ_CHECK(zelPtrStack_GetCount(&stack) == stacked.size() && zelPtrQueue_GetCount(queue) == queued.size());
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ExpectReports(0);
  fuzz::Input input(data, size);
  const std::uint32_t capacity = 1 + input.below(12);
  input.below(4) == 0 ? RunPointers(input, capacity) : RunPool(input, capacity);
  return 0;
}
