#include "recognizer.h"

#include <gmock/gmock.h>

#include <algorithm>

#include "json_reader.h"
#include "ogg_formatter.h"
#include "packet_pool.h"
#include "packet_ref.h"
#include "ptr_stack.h"
#include "recognizer_rig.h"
#include "text_delivery.h"
#include "utterance.h"
#include "wreq_request.h"

namespace {

constexpr std::uint32_t kNoMember = 0xFFFFFFFF;

// The recognizer, and in it the formatter, the packet pool and the request, each in the order of its size; only the
// request adds two of its buffers up the other way round.
TEST(Recognizer, CarvesItsPartsInOrderAtEveryMisalignment) {
  for (std::size_t misalignment = 0; misalignment < 8; ++misalignment) {
    RecognizerRig rig(5, 7, misalignment);
    const std::vector<Blocks>& carved = rig.host.carvings;
    ASSERT_EQ(carved.size(), 5u);
    const auto any = [&](std::size_t carving, std::size_t part) { return carved[carving].at(part).first; };
    const Blocks recognizer = {{16, 8},        {sizeof(SttRecognizer), 8},
                               {any(0, 2), 1}, {64, 1},
                               {any(0, 4), 8}, {8 * 5 + 24, 8},
                               {16, 8},        {5 * 8, 8},
                               {5 * 7, 1},     {72, 1},
                               {any(0, 10), 1}};
    const Blocks formatter = {{sizeof(OggFormatter), 8}, {32, 1}, {32, 1}, {256, 1}, {16384, 1}, {4096, 4}, {8192, 8}};
    const Blocks pool = {{sizeof(SttPacketPool), 8}, {5 * 136, 8}, {5 * 8, 8}, {56 * 5 + 32, 1}};
    Blocks request = {{sizeof(SttRequest), 8},
                      {sizeof(JsonReader), 8},
                      {any(3, 2), 1},
                      {1024, 1},
                      {16, 1},
                      {512, 1},
                      {1024, 1},
                      {32, 1},
                      {128, 1}};
    EXPECT_EQ(carved, (std::vector<Blocks>{recognizer, formatter, pool, request, carved[4]}));
    std::swap(request[5], request[6]);
    for (const Blocks& parts : {recognizer, formatter, pool, request, carved[4]})
      EXPECT_GE(std::ranges::count(rig.host.calculations, parts), 1);

    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(rig.handle) % 8, 0u);
    EXPECT_EQ(rig.record->member_id, kNoMember);
    EXPECT_EQ(std::string(rig.record->client_id, 512), std::string(512, '\0'));
    EXPECT_EQ(rig.record->enabled, 1u);
    rig.ExpectEmpty();
    const PtrStack& texts = *rig.record->text_blocks;
    EXPECT_EQ(zelPtrStack_GetCount(&texts), 5u);
    for (std::size_t i = 1; i < 5; ++i)
      EXPECT_EQ(static_cast<char*>(texts.items[i]) - static_cast<char*>(texts.items[0]), static_cast<int>(7 * i));
    rig.Answer(Recognized(""));
  }
}

// Every function of this folder refuses what it needs and does not get, or what is out of range.
TEST(Recognizer, RefusesMisuse) {
  RecognizerRig rig;
  SttRequest* const request = rig.record->request;
  constexpr SttRequestConfig kRequest = {0};
  const SttRecognizerConfig wrong = {15, 4, 10, 0}, right = {16, 4, 10, 0}, huge = {16, 65535, 0xFFFFFFFF, 0};
  const SttAudioFrame frame = {nullptr, 0};
  WreqResponse response{};
  PacketRef packet{};
  char text[8];
  const std::uint64_t zeros[] = {zelSttRecognizer_Destroy(nullptr),
                                 zelSttRecognizer_EnableMember(nullptr, 1),
                                 zelSttRecognizer_IsEnabledMember(nullptr),
                                 zelSttRecognizer_SetLanguage(nullptr, 9),
                                 zelSttRecognizer_SetLanguage(rig.handle, 3),
                                 zelSttRecognizer_SetLanguage(rig.handle, 0xFFFFFFFF),
                                 zelSttRecognizer_Update(nullptr),
                                 zelSttRecognizer_Recycle(nullptr),
                                 zelSttRecognizer_SetUrl(nullptr, ""),
                                 zelSttRecognizer_SetAuthorization(nullptr, ""),
                                 zelSttRecognizer_SetTimeBase(nullptr, 0),
                                 zelSttRecognizer_Reset(nullptr),
                                 rig.slots->SetMemberId(nullptr, 1),
                                 rig.slots->SetClientId(nullptr, nullptr, 513),
                                 rig.slots->SetClientId(rig.record, nullptr, 513),
                                 rig.slots->PutAudioFrame(nullptr, &frame),
                                 rig.slots->PutAudioFrame(rig.record, nullptr),
                                 zelSttRecognizer_EndUtterance(nullptr),
                                 zelSttRequest_Destroy(nullptr),
                                 zelSttRequest_GetState(nullptr),
                                 zelSttRequest_Start(nullptr, nullptr),
                                 zelSttRequest_Start(request, nullptr),
                                 zelSttRequest_SetAuthorization(nullptr, ""),
                                 zelSttRequest_Reset(nullptr),
                                 zelSttRequest_CheckCompletion(nullptr),
                                 zelSttRequest_ParseReply(nullptr, &response),
                                 zelSttRequest_ParseReply(request, nullptr),
                                 zelSttRequest_IsSucceeded(nullptr),
                                 zelSttRequest_SetUrl(nullptr, "")};
  EXPECT_EQ(rig.host.TakeReports(),
            Refusals("111420 111422 111423 111424 111425 111425 111427 111429 112204 111430 111432 111524 111438 "
                     "111439 111440 111441 111442 111437 110920 110923 110924 110925 111005 111007 111009 111014 "
                     "111015 111531 112205"));
  const void* const nulls[] = {zelSttRecognizer_Create(nullptr, text, 8),   zelSttRecognizer_Create(&right, nullptr, 8),
                               zelSttRecognizer_Create(&wrong, text, 8),    zelSttRecognizer_GetClientId(nullptr),
                               rig.slots->PopTextPacket(nullptr),           zelSttRequest_Create(nullptr, text, 8),
                               zelSttRequest_Create(&kRequest, nullptr, 8), zelSttRequest_Create(&kRequest, text, -1),
                               zelSttRecognizer_Create(&right, text, -1)};
  EXPECT_EQ(rig.host.TakeReports(), Refusals("111405 111406 111705 111421 111525 110907 110908"));
  const std::int32_t negatives[] = {
      zelSttRecognizer_CalculateWorkSize(nullptr), zelSttRecognizer_CalculateWorkSize(&wrong),
      zelSttRecognizer_CalculateWorkSize(&huge),   zelSttRecognizer_GetLanguage(nullptr),
      zelSttRequest_CalculateWorkSize(nullptr),    zelSttRequest_CopyText(nullptr, text, 8),
      zelSttRequest_CopyText(request, nullptr, 8)};
  EXPECT_EQ(rig.host.TakeReports(), Refusals("111404 111704 111426 111530 111532 111003"));
  zelSttRecognizer_ReleaseText(nullptr, &packet);
  zelSttRecognizer_ReleaseText(rig.record, nullptr);
  zelSttRequest_Poll(nullptr);
  EXPECT_EQ(rig.host.TakeReports(), Refusals("111435 111436 110921"));
  zelSttRecognizer_BeginStream(nullptr);
  EXPECT_EQ(rig.host.TakeReports(), Reports{"0 E2023020739 -2"});
  EXPECT_THAT(zeros, testing::Each(0u));
  EXPECT_THAT(nulls, testing::Each(nullptr));
  EXPECT_THAT(negatives, testing::Each(-1));
  EXPECT_EQ(zelSttRecognizer_GetLanguage(rig.handle), 0);
  EXPECT_EQ(request->state, STT_REQUEST_IDLE);
}

TEST(Recognizer, KeepsTheMembersSettings) {
  RecognizerRig rig;
  EXPECT_EQ(rig.slots->SetMemberId(rig.record, 42), 1u);
  EXPECT_EQ(rig.record->member_id, 42u);
  for (const std::uint32_t value : {0u, 0xFFFFFFFFu, 5u}) {
    EXPECT_EQ(zelSttRecognizer_EnableMember(rig.handle, value), 1u);
    EXPECT_EQ(zelSttRecognizer_IsEnabledMember(rig.handle), value);
  }
  EXPECT_EQ(zelSttRecognizer_SetLanguage(rig.handle, 2), 1u);
  EXPECT_EQ(zelSttRecognizer_GetLanguage(rig.handle), 2);

  const auto set = [&](const std::string& bytes) {
    return rig.slots->SetClientId(rig.record, reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                  static_cast<std::uint32_t>(bytes.size()));
  };
  const std::string full(512, 'x');
  EXPECT_EQ(set(full), 1u);
  EXPECT_EQ(zelSttRecognizer_GetClientId(rig.handle), full) << "without a NUL, and yet it ends";
  EXPECT_EQ(set("ab"), 1u);
  EXPECT_EQ(zelSttRecognizer_GetClientId(rig.handle), "ab" + full.substr(2)) << "the rest of the field stays";
  EXPECT_EQ(set(full + "y"), 0u);
  EXPECT_EQ(rig.host.TakeReports(), Reports{"0 E2022111440 -2"});
  rig.host.Fail(SLOT(memory_copy), 1);
  EXPECT_EQ(set("cd"), 0u);
  EXPECT_TRUE(rig.host.Failed());
  EXPECT_EQ(zelSttRecognizer_GetClientId(rig.handle), "ab" + full.substr(2));
  EXPECT_EQ(rig.slots->SetClientId(rig.record, nullptr, 512), 1u);
  EXPECT_EQ(std::string(rig.record->client_id, 512), std::string(512, '\0'));

  // Recycling forgets the member's id and language, nothing else.
  EXPECT_EQ(set("user01"), 1u);
  zelSttRecognizer_SetTimeBase(rig.handle, 77);
  EXPECT_EQ(zelSttRecognizer_Recycle(rig.handle), 1u);
  EXPECT_EQ(rig.record->member_id, kNoMember);
  EXPECT_EQ(zelSttRecognizer_GetLanguage(rig.handle), 0);
  EXPECT_EQ(std::string(zelSttRecognizer_GetClientId(rig.handle)), "user01");
  EXPECT_EQ(zelSttRecognizer_IsEnabledMember(rig.handle), 5u);
  EXPECT_EQ(rig.record->time_base, 77u);
}

TEST(Recognizer, PostsUtterancesInTheirOrder) {
  RecognizerRig rig;
  rig.slots->SetClientId(rig.record, reinterpret_cast<const std::uint8_t*>("user01"), 7);
  zelSttRecognizer_SetLanguage(rig.handle, 1);
  rig.Say(5, "first");
  rig.Say(6, "second");
  EXPECT_TRUE(rig.executor.exchanges().empty());
  rig.executor.Hold();
  EXPECT_EQ(zelSttRecognizer_Update(rig.handle), 1u);
  rig.executor.WaitForExchanges(1);
  EXPECT_EQ(zelSttRecognizer_Update(rig.handle), 1u);
  EXPECT_EQ(rig.record->request->state, STT_REQUEST_REQUESTING);
  EXPECT_EQ(rig.FilledSlots(), 2) << "a slot is kept while its request is in flight";
  rig.executor.Reply(Recognized("one"));
  rig.executor.LetGo();
  rig.host.WaitForWorkers();
  rig.Update();
  EXPECT_EQ(rig.record->request->state, STT_REQUEST_SUCCEEDED);
  EXPECT_EQ(rig.FilledSlots(), 2);
  rig.executor.Hold();
  EXPECT_EQ(zelSttRecognizer_Update(rig.handle), 1u);
  EXPECT_EQ(rig.FilledSlots(), 1);
  rig.executor.WaitForExchanges(2);  // collected and posted in one update
  rig.executor.LetGo();
  rig.host.WaitForWorkers();
  ExpectPackets(rig.Body(0), 5, "first");
  ExpectPackets(rig.Body(1), 6, "second");
  const Exchange second = rig.executor.exchanges()[1];
  EXPECT_EQ(second.url, "http://service/recognize?language=en-US&speaker=user01");
  EXPECT_EQ(second.headers[1].second, "Bearer token");

  // After the failure of the second one the third waits for one more update.
  rig.Say(7, "third");
  rig.Update();
  EXPECT_EQ(rig.record->request->state, STT_REQUEST_FAILED);
  EXPECT_EQ(rig.host.TakeReports().size(), 1u);
  rig.Update();
  EXPECT_EQ(rig.record->request->state, STT_REQUEST_IDLE);
  EXPECT_EQ(rig.record->send_index, 2);
  EXPECT_EQ(rig.executor.exchanges().size(), 2u);
  rig.executor.Reply(Recognized("three"));
  rig.Update();
  ExpectPackets(rig.Body(2), 7, "third");
  rig.Update(2);
  rig.ExpectEmpty();
}

TEST(Recognizer, DropsTheAudioOfADisabledMember) {
  RecognizerRig rig;
  rig.Speak(4);
  rig.Pause(3);
  zelSttRecognizer_EnableMember(rig.handle, 0);
  EXPECT_EQ(rig.Put("dropped"), 0u);
  const SttAudioFrame nothing = {nullptr, 0};
  EXPECT_EQ(rig.slots->PutAudioFrame(rig.record, &nothing), 0u);
  EXPECT_EQ(rig.record->utterance_length, 4 * 640);
  EXPECT_EQ(rig.record->silent_frames, 3);
  for (int i = 0; i < 2; ++i) {
    rig.Update();
    EXPECT_EQ(rig.record->utterance_length + rig.record->silent_frames, 0);
    rig.ExpectEmpty();
  }
  zelSttRecognizer_EnableMember(rig.handle, 2);
  rig.executor.Reply(Recognized("x"));
  rig.Say(5, "kept");
  rig.Update();
  ExpectPackets(rig.Body(0), 5, "kept");
}

TEST(Recognizer, ResetDropsEverythingCollected) {
  RecognizerRig rig;
  rig.Answer(Recognized("taken"));
  rig.Answer(Recognized("queued"));
  PacketRef* taken = rig.slots->PopTextPacket(rig.record);
  ASSERT_NE(taken, nullptr);
  for (int i = 0; i < 4; ++i)
    rig.Say(5);
  rig.Speak(3);
  rig.Pause(2);
  rig.executor.Hold();
  EXPECT_EQ(zelSttRecognizer_Update(rig.handle), 1u);
  rig.executor.WaitForExchanges(3);
  rig.host.on_sleep = [&] { rig.executor.LetGo(); };
  EXPECT_EQ(zelSttRecognizer_Reset(rig.handle), 1u);
  EXPECT_GE(rig.host.Count(SLOT(thread_sleep)), 1);
  rig.ExpectEmpty();
  EXPECT_EQ(rig.record->send_index, rig.record->fill_index);
  EXPECT_EQ(rig.record->utterance_length + rig.record->silent_frames, 0);
  EXPECT_EQ(rig.record->request->state, STT_REQUEST_IDLE);
  EXPECT_EQ(rig.slots->PopTextPacket(rig.record), nullptr);
  EXPECT_EQ(zelPtrStack_GetCount(rig.record->text_blocks), 3u);
  rig.Update(3);
  EXPECT_EQ(rig.executor.exchanges().size(), 3u) << "nothing of what was waiting is posted";
  EXPECT_STREQ(reinterpret_cast<const char*>(taken->payload->field_values[0]), "taken");
  zelPacketRef_Release(taken);
  EXPECT_EQ(zelPtrStack_GetCount(rig.record->text_blocks), 4u);
  rig.Answer(Recognized("next"));
  PacketRef* next = rig.slots->PopTextPacket(rig.record);
  ASSERT_NE(next, nullptr);
  zelPacketRef_Release(next);
}

}  // namespace
