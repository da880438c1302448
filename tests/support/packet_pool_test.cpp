#include "packet_pool.h"

#include "packet.h"
#include "packet_ref.h"
#include "scripted_host.h"

namespace {

TEST(SttPacketPool, CarvesWhatItsSizePromisesAtEveryMisalignment) {
  ScriptedHost host;
  EXPECT_EQ(zelSttPacketPool_CalculateWorkSize(0), -1);
  EXPECT_EQ(zelSttPacketPool_Create(0, &host, 1000), nullptr);
  EXPECT_EQ(zelSttPacketPool_Create(3, nullptr, 10000), nullptr);
  for (std::size_t misalignment = 0; misalignment < 8; ++misalignment) {
    WorkArea area(zelSttPacketPool_CalculateWorkSize(3), misalignment);
    EXPECT_EQ(zelSttPacketPool_Create(3, area.data(), area.size() - 1), nullptr);
    host.ForgetCalls();
    ASSERT_NE(zelSttPacketPool_Create(3, area.data(), area.size()), nullptr) << misalignment;
    const Blocks parts = {{sizeof(SttPacketPool), 8}, {3 * 136, 8}, {3 * 8, 8}, {56 * 3 + 32, 1}};
    EXPECT_EQ(host.calculations.front(), parts);
    EXPECT_EQ(host.carvings, std::vector<Blocks>{parts});
  }
}

TEST(SttPacketPool, ReportsTheCarveThatFails) {
  ScriptedHost host;
  WorkArea area(zelSttPacketPool_CalculateWorkSize(3));
  const Reports reports[] = {{"0 E2021100782:zelFixedAllocator_Allocate() Failed."},
                             {"0 E2021100783:zelFixedAllocator_Allocate() Failed."},
                             {"0 E2021100784:zelFixedAllocator_Allocate() Failed."},
                             {}};
  for (int k = 1; k <= 4; ++k) {
    host.Fail(SLOT(fixed_allocator_allocate), k);
    EXPECT_EQ(zelSttPacketPool_Create(3, area.data(), area.size()), nullptr) << k;
    EXPECT_TRUE(host.Failed());
    EXPECT_EQ(host.TakeReports(), reports[k - 1]) << k;
  }
  EXPECT_NE(zelSttPacketPool_Create(3, area.data(), area.size()), nullptr);
}

TEST(SttPacketPool, HandsOutEachPacketOnceAndTakesItBack) {
  ScriptedHost host;
  WorkArea area(zelSttPacketPool_CalculateWorkSize(3));
  SttPacketPool* pool = zelSttPacketPool_Create(3, area.data(), area.size());
  std::vector<PacketRef*> released;
  const auto callback = [](void* context, PacketRef* ref) {
    static_cast<std::vector<PacketRef*>*>(context)->push_back(ref);
  };
  std::vector<PacketRef*> out;
  for (int i = 0; i < 3; ++i) {
    PacketRef* ref = zelSttPacketPool_Allocate(pool, callback, &released);
    ASSERT_NE(ref, nullptr);
    EXPECT_EQ(ref->payload, pool->packets + 2 - i) << "the highest block comes first";
    EXPECT_EQ(ref->user_value + ref->user_word, 0u);
    EXPECT_EQ(ref->payload->field_mask + ref->payload->slot_marks, 0u);
    zelPacketRef_SetUInt32(ref, 4, 1);
    ref->payload->slot_marks = 0xFE;
    out.push_back(ref);
  }
  EXPECT_EQ(zelSttPacketPool_Allocate(pool, callback, &released), nullptr);
  EXPECT_EQ(zelSttPacketPool_Allocate(nullptr, callback, &released), nullptr);

  SttPacket* returned = out[1]->payload;
  zelPacketRef_Release(out[1]);
  EXPECT_EQ(released, std::vector{out[1]});
  zelSttPacketPool_Destroy(pool);
  EXPECT_EQ(host.TakeReports(), Reports{"0 E2021100512 -2"});
  out[1] = zelSttPacketPool_Allocate(pool, nullptr, nullptr);
  ASSERT_NE(out[1], nullptr);
  EXPECT_EQ(out[1]->payload, returned);
  EXPECT_EQ(returned->field_mask + returned->slot_marks, 0u);
  for (PacketRef* ref : out)
    zelPacketRef_Release(ref);
  EXPECT_EQ(released.size(), 3u);
  zelSttPacketPool_Destroy(pool);
  zelSttPacketPool_Destroy(nullptr);
}

}  // namespace
