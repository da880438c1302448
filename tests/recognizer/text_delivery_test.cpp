#include "text_delivery.h"

#include "packet.h"
#include "ptr_stack.h"
#include "recognizer_rig.h"

namespace {

const Reports kNoBlock{"0 E2022110405:Failed to allcate text resource for SpeechToText."};
const Reports kTooLong{"0 E2022110406:Failed to write text buffer for SpeechToText because buffer size is not enough."};

TEST(TextDelivery, TellsMemberAndTime) {
  RecognizerRig rig;
  const struct {
    std::uint64_t base, frequency, count, stamp;
  } cases[] = {{1000, 10'000'000, 25'001'000, 2'500'000},
               {7, 3, 8, 333'333},
               {7, 1'000'000'000, 7 + 1999, 1},
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
    rig.host.ForgetCalls();
    PacketRef* packet = rig.slots->PopTextPacket(rig.record);
    EXPECT_EQ(rig.host.calls, (std::vector{SLOT(mutex_lock), SLOT(mutex_unlock)})) << "updates deliver meanwhile";
    ASSERT_NE(packet, nullptr);
    EXPECT_EQ(zelPacketRef_GetField(packet, SttPacketField_MemberId), member);
    EXPECT_EQ(zelPacketRef_GetField(packet, SttPacketField_Timestamp), test.stamp);
    EXPECT_EQ(packet->payload->release_context, rig.record);
    rig.host.ForgetCalls();
    EXPECT_EQ(TakeText(packet), "text");
    EXPECT_EQ(rig.host.Count(SLOT(mutex_lock)), 2) << "the packet returns under the mutex, and so does its text";
  }
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
    EXPECT_EQ(TakeText(rig.slots->PopTextPacket(rig.record)), test.delivered);
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
}

}  // namespace
