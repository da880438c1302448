#include "text_delivery.h"

#include "packet_ref.h"
#include "ptr_stack.h"
#include "recognizer_rig.h"

namespace {

const Reports kNoPacket{"0 E2022110404:Failed to allcate text packet for SpeechToText."};
const Reports kNoBlock{"0 E2022110405:Failed to allcate text resource for SpeechToText."};
const Reports kTooLong{"0 E2022110406:Failed to write text buffer for SpeechToText because buffer size is not enough."};

// The text of a packet, which is released.
std::string Take(PacketRef* packet) {
  if (packet == nullptr) return "(none)";
  std::string text = reinterpret_cast<const char*>(packet->payload->field_values[0]);
  EXPECT_EQ(packet->payload->field_values[1], text.size());
  zelPacketRef_Release(packet);
  return text;
}

TEST(TextDelivery, FillsFourFields) {
  RecognizerRig rig;
  const struct {
    std::uint64_t base, frequency, count, stamp;
  } cases[] = {{1000, 10'000'000, 25'001'000, 2'500'000},
               {0, 10'000'000, 0, 0},
               {5, 1, 6, 1'000'000},
               {0, 3, 1, 333'333},
               {7, 1'000'000'000, 7 + 1999, 1},
               {0, 10'000'000, 1ULL << 63, 922'337'203'685'477'580},
               {0, 2'000'000, UINT64_MAX, 9'223'372'036'854'775'807}};
  std::uint32_t member = 0xFFFFFFFE;
  for (const auto& test : cases) {
    SCOPED_TRACE(test.stamp);
    zelSttRecognizer_SetTimeBase(rig.handle, test.base);
    rig.host.clock = test.count;
    rig.host.frequency = test.frequency;
    rig.slots->SetMemberId(rig.record, 1);
    rig.executor.Reply(Recognized("text"));
    rig.Say(5);
    rig.Update();
    rig.slots->SetMemberId(rig.record, ++member);  // as it is when the reply is collected
    rig.Update(2);
    PacketRef* packet = rig.slots->PopTextPacket(rig.record);
    ASSERT_NE(packet, nullptr);
    const SttPacket& fields = *packet->payload;
    EXPECT_EQ(fields.field_mask, 1572u);
    EXPECT_EQ(fields.slot_marks, 0);
    EXPECT_EQ(std::vector(fields.field_flags, fields.field_flags + 5),
              (std::vector<std::uint32_t>{1024, 512, 32, 4, 0}));
    EXPECT_EQ(fields.field_values[2], member);
    EXPECT_EQ(fields.field_values[3], test.stamp);
    EXPECT_EQ(packet->ref_count, 1u);
    EXPECT_EQ(fields.release_context, rig.record);
    EXPECT_EQ(Take(packet), "text");
  }
}

TEST(TextDelivery, LosesTextsThatFindNoPacketUntilOneIsReleased) {
  RecognizerRig rig(4);
  std::vector<PacketRef*> held;
  for (const char* text : {"0", "1", "2", "3"})
    rig.Answer(Recognized(text));
  for (const bool queued : {true, false}) {
    rig.Answer(Recognized("lost"));
    EXPECT_EQ(rig.host.TakeReports(), kNoPacket) << (queued ? "all are queued" : "the host holds all");
    for (int i = 0; queued && i < 4; ++i)
      held.push_back(rig.slots->PopTextPacket(rig.record));
  }
  EXPECT_EQ(Take(held[0]), "0");
  rig.Answer(Recognized("4"));
  held.push_back(rig.slots->PopTextPacket(rig.record));
  for (std::size_t i = 1; i < 5; ++i)
    EXPECT_EQ(Take(held[i]), std::to_string(i));
  EXPECT_EQ(rig.slots->PopTextPacket(rig.record), nullptr);
  EXPECT_EQ(zelPtrStack_GetCount(rig.record->text_blocks), 4u);
}

TEST(TextDelivery, LosesTextsThatDoNotFitAndEmptyOnes) {
  RecognizerRig rig(4, 10);
  const struct {
    const char *text, *delivered;
    Reports reports;
  } cases[] = {
      {"123456789", "123456789", {}}, {"1234567890", "(none)", kTooLong}, {"", "(none)", {}}, {"\\n", "\\n", {}}};
  for (const auto& test : cases) {
    SCOPED_TRACE(test.text);
    rig.Answer(Recognized(test.text));
    EXPECT_EQ(rig.host.TakeReports(), test.reports);
    EXPECT_EQ(Take(rig.slots->PopTextPacket(rig.record)), test.delivered);
    EXPECT_EQ(zelPtrStack_GetCount(rig.record->text_blocks), 4u);
  }
  rig.Answer({R"({"result":"success"})"});
  EXPECT_EQ(rig.host.TakeReports(), kTooLong) << "the default, \"invalid_string\", is a text";
}

TEST(TextDelivery, ReportsMissingParts) {
  RecognizerRig rig;
  zelSttRecognizer_DeliverText(rig.record);
  EXPECT_EQ(rig.host.TakeReports(), Reports{"0 E2022110403:Failed to get response text for SpeechToText."});
  std::vector<void*> blocks;
  while (void* block = zelPtrStack_Pop(rig.record->text_blocks))
    blocks.push_back(block);
  for (int i = 0; i < 6; ++i) {
    rig.Answer(Recognized("lost"));
    EXPECT_EQ(rig.host.TakeReports(), kNoBlock) << "the packet has come back each time";
  }
  for (void* block : blocks)
    zelPtrStack_Push(rig.record->text_blocks, block);
}

TEST(TextDelivery, ADestroyedRecognizerReportsWhatTheHostStillHolds) {
  RecognizerRig rig;
  rig.Answer(Recognized("held"));
  rig.Answer(Recognized("queued"));
  EXPECT_NE(rig.slots->PopTextPacket(rig.record), nullptr);
  rig.reports_of_destroy = {"0 E2021100512 -2"};
}

// The host takes packets on its own thread while updates deliver; it releases them where it updates.
TEST(TextDelivery, PopsMayOverlapUpdates) {
  RecognizerRig rig;
  std::mutex mutex;
  std::vector<PacketRef*> popped;
  std::atomic<bool> done{false};
  std::thread consumer([&] {
    while (!done) {
      PacketRef* packet = rig.slots->PopTextPacket(rig.record);
      if (packet == nullptr) std::this_thread::yield();
      const std::lock_guard lock(mutex);
      if (packet != nullptr) popped.push_back(packet);
    }
  });
  int taken = 0;
  for (int i = 0; i < 50; ++i) {
    rig.Answer(Recognized("text" + std::to_string(i)));
    while (taken < (i < 49 ? i - 1 : 50)) {
      std::this_thread::yield();
      const std::lock_guard lock(mutex);
      for (PacketRef* packet : std::exchange(popped, {}))
        EXPECT_EQ(Take(packet), "text" + std::to_string(taken++));
    }
  }
  done = true;
  consumer.join();
}

}  // namespace
