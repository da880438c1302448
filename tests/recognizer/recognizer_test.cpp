#include "recognizer.h"

#include <algorithm>

#include "json_reader.h"
#include "ogg_formatter.h"
#include "packet_pool.h"
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
    const Blocks recognizer = {{24, 8},        {sizeof(SttRecognizer), 8},
                               {any(0, 2), 1}, {64, 1},
                               {any(0, 4), 8}, {8 * 5 + 24, 8},
                               {16, 8},        {5 * 8, 8},
                               {5 * 7, 1},     {72, 1},
                               {any(0, 10), 1}};
    const Blocks formatter = {{sizeof(OggFormatter), 8}, {32, 1}, {32, 1}, {256, 1}, {16384, 1}, {4096, 4}, {8192, 8}};
    const Blocks pool = {{sizeof(SttPacketPool), 8}, {5 * 136, 8}, {5 * 8, 8}, {56 * 5 + 32, 1}};
    const std::uint64_t record = sizeof(SttRequest), reader = sizeof(JsonReader), worker = any(3, 2);
    const auto request = [&](std::uint64_t speaker, std::uint64_t text) {
      return Blocks{{record, 8},  {reader, 8}, {worker, 1}, {1024, 1}, {16, 1},
                    {speaker, 1}, {text, 1},   {32, 1},     {128, 1}};
    };
    EXPECT_EQ(carved, (std::vector<Blocks>{recognizer, formatter, pool, request(512, 1024), carved[4]}));
    for (const Blocks& parts : {recognizer, formatter, pool, request(1024, 512), carved[4]})
      EXPECT_GE(std::ranges::count(rig.host.calculations, parts), 1);

    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(rig.handle) % 8, 0u);
    EXPECT_EQ(rig.record->member_id, kNoMember);
    EXPECT_EQ(std::string(rig.record->client_id, 512), std::string(512, '\0'));
    EXPECT_EQ(rig.record->enabled, 1u);
    rig.ExpectEmpty();
    const PtrStack& texts = *rig.record->text_blocks;
    ASSERT_EQ(zelPtrStack_GetCount(&texts), 5u);
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
  EXPECT_FALSE(zelSttRecognizer_Destroy(nullptr) || zelSttRecognizer_EnableMember(nullptr, 1) ||
               zelSttRecognizer_IsEnabledMember(nullptr) || zelSttRecognizer_SetLanguage(nullptr, 9) ||
               zelSttRecognizer_SetLanguage(rig.handle, 3) || zelSttRecognizer_SetLanguage(rig.handle, 0xFFFFFFFF) ||
               zelSttRecognizer_Update(nullptr) || zelSttRecognizer_Recycle(nullptr) ||
               zelSttRecognizer_SetUrl(nullptr, "") || zelSttRecognizer_SetAuthorization(nullptr, "") ||
               zelSttRecognizer_SetTimeBase(nullptr, 0) || zelSttRecognizer_Reset(nullptr) ||
               rig.slots->SetMemberId(nullptr, 1) || rig.slots->SetClientId(nullptr, nullptr, 513) ||
               rig.slots->SetClientId(rig.record, nullptr, 513) || rig.slots->PutAudioFrame(nullptr, &frame) ||
               rig.slots->PutAudioFrame(rig.record, nullptr) || zelSttRecognizer_EndUtterance(nullptr));
  EXPECT_EQ(rig.host.TakeReports(), Refusals("111420 111422 111423 111424 111425 111425 111427 111429 112204 111430 "
                                             "111432 111524 111438 111439 111440 111441 111442 111437"));
  EXPECT_FALSE(zelSttRequest_Destroy(nullptr) || zelSttRequest_GetState(nullptr) ||
               zelSttRequest_Start(nullptr, nullptr) || zelSttRequest_Start(request, nullptr) ||
               zelSttRequest_SetAuthorization(nullptr, "") || zelSttRequest_Reset(nullptr) ||
               zelSttRequest_CheckCompletion(nullptr) || zelSttRequest_ParseReply(nullptr, &response) ||
               zelSttRequest_ParseReply(request, nullptr) || zelSttRequest_IsSucceeded(nullptr) ||
               zelSttRequest_SetUrl(nullptr, ""));
  EXPECT_EQ(rig.host.TakeReports(),
            Refusals("110920 110923 110924 110925 111005 111007 111009 111014 111015 111531 112205"));
  EXPECT_FALSE(zelSttRecognizer_Create(nullptr, text, 8) || zelSttRecognizer_Create(&right, nullptr, 8) ||
               zelSttRecognizer_Create(&wrong, text, 8) || zelSttRecognizer_GetClientId(nullptr) ||
               rig.slots->PopTextPacket(nullptr) || zelSttRequest_Create(nullptr, text, 8) ||
               zelSttRequest_Create(&kRequest, nullptr, 8) || zelSttRequest_Create(&kRequest, text, -1) ||
               zelSttRecognizer_Create(&right, text, -1));
  EXPECT_EQ(rig.host.TakeReports(), Refusals("111405 111406 111705 111421 111525 110907 110908"));
  EXPECT_TRUE(zelSttRecognizer_CalculateWorkSize(nullptr) == -1 && zelSttRecognizer_CalculateWorkSize(&wrong) == -1 &&
              zelSttRecognizer_CalculateWorkSize(&huge) == -1 && zelSttRecognizer_GetLanguage(nullptr) == -1 &&
              zelSttRequest_CalculateWorkSize(nullptr) == -1 && zelSttRequest_CopyText(nullptr, text, 8) == -1 &&
              zelSttRequest_CopyText(request, nullptr, 8) == -1);
  EXPECT_EQ(rig.host.TakeReports(), Refusals("111404 111704 111426 111530 111532 111003"));
  zelSttRecognizer_ReleaseText(nullptr, &packet);
  zelSttRecognizer_ReleaseText(rig.record, nullptr);
  zelSttRequest_Poll(nullptr);
  EXPECT_EQ(rig.host.TakeReports(), Refusals("111435 111436 110921"));
  EXPECT_EQ(zelSttRecognizer_BeginStream(nullptr), 0u);
  EXPECT_EQ(rig.host.TakeReports(), Reports{"0 E2023020739 -2"});
  EXPECT_EQ(zelSttRecognizer_GetLanguage(rig.handle), 0);
}

TEST(Recognizer, KeepsTheClientId) {
  RecognizerRig rig;
  const auto set = [&](const std::string& bytes) {
    return rig.slots->SetClientId(rig.record, reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                  static_cast<std::uint32_t>(bytes.size()));
  };
  const std::string full(512, 'x'), mixed = "ab" + full.substr(2);
  EXPECT_EQ(set(full), 1u);
  EXPECT_EQ(zelSttRecognizer_GetClientId(rig.handle), full) << "without a NUL, and yet it ends";
  EXPECT_EQ(set("ab"), 1u);
  EXPECT_EQ(zelSttRecognizer_GetClientId(rig.handle), mixed) << "the rest of the field stays";
  EXPECT_EQ(set(full + "y"), 0u);
  EXPECT_EQ(rig.host.TakeReports(), Reports{"0 E2022111440 -2"});
  rig.host.Fail(SLOT(memory_copy), 1);
  EXPECT_EQ(set("cd"), 0u);
  EXPECT_TRUE(rig.host.Failed());
  EXPECT_EQ(zelSttRecognizer_GetClientId(rig.handle), mixed);
  EXPECT_EQ(rig.slots->SetClientId(rig.record, nullptr, 512), 1u);
  EXPECT_EQ(std::string(rig.record->client_id, 512), std::string(512, '\0'));
}

TEST(Recognizer, RecyclingForgetsTheMembersIdAndLanguageAndNothingElse) {
  RecognizerRig rig;
  EXPECT_EQ(rig.slots->SetMemberId(rig.record, 42), 1u);
  EXPECT_EQ(rig.record->member_id, 42u);
  EXPECT_EQ(rig.slots->SetClientId(rig.record, reinterpret_cast<const std::uint8_t*>("user01"), 7), 1u);
  EXPECT_EQ(zelSttRecognizer_SetLanguage(rig.handle, 2), 1u);
  EXPECT_EQ(zelSttRecognizer_EnableMember(rig.handle, 5), 1u);
  zelSttRecognizer_SetTimeBase(rig.handle, 77);
  EXPECT_EQ(zelSttRecognizer_Recycle(rig.handle), 1u);
  EXPECT_EQ(rig.record->member_id, kNoMember);
  EXPECT_EQ(zelSttRecognizer_GetLanguage(rig.handle), 0);
  EXPECT_STREQ(zelSttRecognizer_GetClientId(rig.handle), "user01");
  EXPECT_EQ(zelSttRecognizer_IsEnabledMember(rig.handle), 5u);
  EXPECT_EQ(rig.record->time_base, 77u);
}

TEST(Recognizer, PostsUtterancesInTheirOrder) {
  RecognizerRig rig;
  rig.slots->SetClientId(rig.record, reinterpret_cast<const std::uint8_t*>("user01"), 7);
  zelSttRecognizer_SetLanguage(rig.handle, 1);
  rig.Say(5, "first");
  rig.Say(6, "second");
  rig.Say(7, "third");
  EXPECT_TRUE(rig.executor.exchanges().empty()) << "only updates post";
  rig.executor.Reply(Recognized("one"));
  const struct {
    std::uint32_t state;  // of the request, after an update
    int waiting;          // utterances
    std::size_t posted;
  } steps[] = {
      {STT_REQUEST_REQUESTING, 3, 1},
      {STT_REQUEST_SUCCEEDED, 3, 1},
      // Collected and posted in one update; after a failure the next one waits for one more.
      {STT_REQUEST_REQUESTING, 2, 2},
      {STT_REQUEST_FAILED, 2, 2},
      {STT_REQUEST_IDLE, 1, 2},
      {STT_REQUEST_REQUESTING, 1, 3},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE("step " + std::to_string(&step - steps));
    rig.executor.Hold();
    EXPECT_EQ(zelSttRecognizer_Update(rig.handle), 1u);
    EXPECT_EQ(rig.record->request->state, step.state);
    EXPECT_EQ(rig.FilledSlots(), step.waiting);
    rig.executor.LetGo();
    rig.host.WaitForWorkers();
    EXPECT_EQ(rig.executor.exchanges().size(), step.posted);
  }
  EXPECT_EQ(rig.host.TakeReports().size(), 1u);
  ExpectPackets(rig.Body(0), 5, "first");
  ExpectPackets(rig.Body(1), 6, "second");
  ExpectPackets(rig.Body(2), 7, "third");
  const Exchange second = rig.executor.exchanges()[1];
  EXPECT_EQ(second.url, "http://service/recognize?language=en-US&speaker=user01");
  EXPECT_EQ(second.headers[1].second, "Bearer token");
  rig.Update(2);
  EXPECT_EQ(rig.host.TakeReports().size(), 1u);
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
}

}  // namespace
