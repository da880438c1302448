#include "recognizer.h"

#include <algorithm>
#include <map>

#include "ogg_pages.h"
#include "packet_ref.h"
#include "ptr_stack.h"
#include "recognizer_rig.h"

namespace {

constexpr std::uint32_t kNoMember = 0xFFFFFFFF;

TEST(Recognizer, CarvesItsPartsInOrderAtEveryMisalignment) {
  for (std::size_t misalignment = 0; misalignment < 8; ++misalignment) {
    RecognizerRig rig(5, 7, misalignment);
    const Blocks& carved = rig.host.carvings[0];
    ASSERT_EQ(carved.size(), 11u);
    const Blocks parts = {{16, 8},
                          {sizeof(SttRecognizer), 8},
                          {carved[2].first, 1},
                          {64, 1},
                          {carved[4].first, 8},
                          {8 * 5 + 24, 8},
                          {16, 8},
                          {5 * 8, 8},
                          {5 * 7, 1},
                          {72, 1},
                          {carved[10].first, 1}};
    EXPECT_EQ(carved, parts);
    EXPECT_EQ(std::ranges::count(rig.host.calculations, parts), 1);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(rig.handle) % 8, 0u);
    EXPECT_EQ(rig.record->member_id, kNoMember);
    EXPECT_EQ(std::string(rig.record->client_id, 512), std::string(512, '\0'));
    EXPECT_EQ(rig.record->enabled, 1u);
    EXPECT_EQ(zelSttRecognizer_GetLanguage(rig.handle), 0);
    EXPECT_EQ(rig.DataSize(), kHeaderPages);
    EXPECT_EQ(zelPtrStack_GetCount(rig.record->text_blocks), 5u);
    for (std::size_t i = 1; i < 5; ++i)
      EXPECT_EQ(static_cast<char*>(rig.record->text_blocks->items[i]) -
                    static_cast<char*>(rig.record->text_blocks->items[i - 1]),
                7);
  }
}

TEST(Recognizer, UndoesWhateverFails) {
  ScriptedHost host;
  ScriptedExecutor executor;
  const SttRecognizerConfig config = {16, 4, 10, 0};
  WorkArea area(zelSttRecognizer_CalculateWorkSize(&config));
  const std::string pool = ":zelFixedAllocator_Allocate() Failed.", worker = ":Failed create wreq async handle.";
  const auto wreq = [&](int number) { return "0 E2022121" + std::to_string(number) + worker; };
  // Of the carves: handle, record, formatter and its seven parts, ring buffer, pool and its four parts, queue, stack,
  // items, texts, mutex, request, its record and reader, worker and its twelve parts and objects, six buffers.
  const std::map<int, std::string> carves = {{13, "0 E2021100782" + pool},
                                             {14, "0 E2021100783" + pool},
                                             {15, "0 E2021100784" + pool},
                                             {26, wreq(304)},
                                             {27, wreq(305)},
                                             {28, wreq(335)},
                                             {29, wreq(306)},
                                             {30, wreq(336)},
                                             {31, wreq(307)},
                                             {32, wreq(308)},
                                             {33, wreq(309)},
                                             {34, wreq(310)},
                                             {35, wreq(313)},
                                             {36, wreq(314)},
                                             {37, wreq(315)}};
  const struct {
    int slot, failures;
    std::map<int, std::string> reports;
  } services[] = {{SLOT(fixed_allocator_allocate), 43, carves},   {SLOT(ring_buffer_create), 1, {}},
                  {SLOT(ring_buffer_calculate_work_size), 1, {}}, {SLOT(mutex_create), 1, {}},
                  {SLOT(event_create), 1, {{1, wreq(314)}}},      {SLOT(thread_create), 1, {{1, wreq(315)}}}};
  for (const auto& service : services) {
    for (int k = 1;; ++k) {
      SCOPED_TRACE("call " + std::to_string(k) + " of slot " + std::to_string(service.slot));
      host.Fail(service.slot, k);
      const SttRecognizerHn handle = zelSttRecognizer_Create(&config, area.data(), area.size());
      if (!host.Failed()) {
        EXPECT_EQ(k, service.failures + 1);
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(zelSttRecognizer_Destroy(handle), 1u);
        break;
      }
      ASSERT_EQ(handle, nullptr);
      const auto report = service.reports.find(k);
      EXPECT_EQ(host.TakeReports(), report != service.reports.end() ? Reports{report->second} : Reports{});
      EXPECT_EQ(host.Live(), (std::array<int, kLiveKinds>{}));
    }
  }
}

TEST(Recognizer, RefusesUnusableConfigurations) {
  ScriptedHost host;
  char work[8];
  const SttRecognizerConfig wrong = {15, 4, 10, 0}, right = {16, 4, 10, 0}, huge = {16, 65535, 0xFFFFFFFF, 0};
  EXPECT_EQ(zelSttRecognizer_CalculateWorkSize(nullptr), -1);
  EXPECT_EQ(zelSttRecognizer_CalculateWorkSize(&wrong), -1);
  EXPECT_EQ(zelSttRecognizer_Create(nullptr, work, 8), nullptr);
  EXPECT_EQ(zelSttRecognizer_Create(&right, nullptr, 8), nullptr);
  EXPECT_EQ(zelSttRecognizer_Create(&wrong, work, 8), nullptr);
  EXPECT_EQ(host.TakeReports(), (Reports{"0 E2022111404 -2", "0 E2022111704 -2", "0 E2022111405 -2", "0 E2022111406 -2",
                                         "0 E2022111705 -2"}));
  EXPECT_EQ(zelSttRecognizer_CalculateWorkSize(&huge), -1);
}

TEST(Recognizer, RefusesNull) {
  RecognizerRig rig;
  EXPECT_EQ(zelSttRecognizer_Destroy(nullptr), 0u);
  EXPECT_EQ(zelSttRecognizer_GetClientId(nullptr), nullptr);
  EXPECT_EQ(zelSttRecognizer_EnableMember(nullptr, 1), 0u);
  EXPECT_EQ(zelSttRecognizer_IsEnabledMember(nullptr), 0u);
  EXPECT_EQ(zelSttRecognizer_SetLanguage(nullptr, 9), 0u);
  EXPECT_EQ(zelSttRecognizer_GetLanguage(nullptr), -1);
  EXPECT_EQ(zelSttRecognizer_Update(nullptr), 0u);
  EXPECT_EQ(zelSttRecognizer_Recycle(nullptr), 0u);
  EXPECT_EQ(zelSttRecognizer_SetAuthorization(nullptr, ""), 0u);
  EXPECT_EQ(zelSttRecognizer_SetTimeBase(nullptr, 0), 0u);
  EXPECT_EQ(zelSttRecognizer_Reset(nullptr), 0u);
  EXPECT_EQ(zelSttRecognizer_SetUrl(nullptr, ""), 0u);
  EXPECT_EQ(rig.slots->SetMemberId(nullptr, 1), 0u);
  EXPECT_EQ(rig.slots->SetClientId(nullptr, nullptr, 513), 0u);
  Reports reports;
  for (const char* number : {"111420", "111421", "111422", "111423", "111424", "111426", "111427", "111429", "111430",
                             "111432", "111524", "112204", "111438", "111439"})
    reports.push_back(std::string("0 E2022") + number + " -2");
  EXPECT_EQ(rig.host.TakeReports(), reports);
}

TEST(Recognizer, KeepsTheMembersSettings) {
  RecognizerRig rig;
  EXPECT_EQ(rig.slots->SetMemberId(rig.record, 42), 1u);
  EXPECT_EQ(rig.record->member_id, 42u);
  for (const std::uint32_t value : {0u, 5u, 0xFFFFFFFFu, 1u}) {
    EXPECT_EQ(zelSttRecognizer_EnableMember(rig.handle, value), 1u);
    EXPECT_EQ(zelSttRecognizer_IsEnabledMember(rig.handle), value);
  }
  EXPECT_EQ(zelSttRecognizer_SetLanguage(rig.handle, 2), 1u);
  for (const std::uint32_t language : {3u, 0xFFFFFFFFu}) {
    EXPECT_EQ(zelSttRecognizer_SetLanguage(rig.handle, language), 0u);
    EXPECT_EQ(rig.host.TakeReports(), Reports{"0 E2022111425 -2"});
  }
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
  EXPECT_EQ(rig.slots->SetClientId(rig.record, nullptr, 513), 0u);
  EXPECT_EQ(rig.host.TakeReports(), (Reports{"0 E2022111440 -2", "0 E2022111440 -2"}));
  rig.host.Fail(SLOT(memory_copy), 1);
  EXPECT_EQ(set("cd"), 0u);
  EXPECT_TRUE(rig.host.Failed());
  EXPECT_EQ(zelSttRecognizer_GetClientId(rig.handle), "ab" + full.substr(2));
  EXPECT_EQ(rig.slots->SetClientId(rig.record, nullptr, 512), 1u);
  EXPECT_EQ(std::string(rig.record->client_id, 512), std::string(512, '\0'));

  // Recycling forgets the member's id and language, nothing else.
  EXPECT_EQ(set("user01"), 1u);
  zelSttRecognizer_EnableMember(rig.handle, 5);
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
  rig.Speak(5, "first");
  rig.Pause();
  rig.Speak(6, "second");
  rig.Pause();
  EXPECT_TRUE(rig.executor.exchanges().empty());
  rig.executor.Hold();
  EXPECT_EQ(zelSttRecognizer_Update(rig.handle), 1u);
  rig.executor.WaitForExchanges(1);
  for (int i = 0; i < 3; ++i)
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
  const std::vector<Exchange> exchanges = rig.executor.exchanges();
  ExpectOpusStream(exchanges[0].body, std::vector<std::string>(5, "first"));
  ExpectOpusStream(exchanges[1].body, std::vector<std::string>(6, "second"));
  EXPECT_EQ(exchanges[1].url, "http://service/recognize?language=en-US&speaker=user01");
  EXPECT_EQ(exchanges[1].headers[1].second, "Bearer token");

  // After the failure of the second one the third waits for one more update.
  rig.Speak(7, "third");
  rig.Pause();
  rig.Update();
  EXPECT_EQ(rig.record->request->state, STT_REQUEST_FAILED);
  EXPECT_EQ(rig.host.TakeReports().size(), 1u);
  rig.Update();
  EXPECT_EQ(rig.record->request->state, STT_REQUEST_IDLE);
  EXPECT_EQ(rig.record->send_index, 2);
  EXPECT_EQ(rig.executor.exchanges().size(), 2u);
  rig.executor.Reply(Recognized("three"));
  rig.Update();
  ExpectOpusStream(rig.executor.exchanges().at(2).body, std::vector<std::string>(7, "third"));
  rig.Update();
  rig.Update();
  EXPECT_EQ(rig.FilledSlots(), 0);
  EXPECT_EQ(zelRingBuffer_GetDataSize(rig.record->ring_buffer, 0), rig.host.ring_bytes - kHeaderPages);
}

TEST(Recognizer, DropsTheAudioOfADisabledMember) {
  RecognizerRig rig;
  rig.Speak(4);
  rig.Pause(3);
  zelSttRecognizer_EnableMember(rig.handle, 0);
  EXPECT_EQ(rig.Put("dropped"), 0u);
  EXPECT_EQ(rig.record->utterance_length, 4 * 640);
  EXPECT_EQ(rig.record->silent_frames, 3);
  for (int i = 0; i < 2; ++i) {
    rig.Update();
    EXPECT_EQ(rig.record->utterance_length + rig.record->silent_frames, 0);
    EXPECT_EQ(rig.DataSize(), kHeaderPages);
  }
  zelSttRecognizer_EnableMember(rig.handle, 2);
  rig.Speak(5, "kept");
  rig.Pause();
  rig.executor.Reply(Recognized("x"));
  rig.Update();
  ExpectOpusStream(rig.executor.exchanges().at(0).body, std::vector<std::string>(5, "kept"));
}

TEST(Recognizer, ResetDropsEverythingCollected) {
  RecognizerRig rig;
  rig.Answer(Recognized("taken"));
  rig.Answer(Recognized("queued"));
  PacketRef* taken = rig.slots->PopTextPacket(rig.record);
  ASSERT_NE(taken, nullptr);
  for (int i = 0; i < 4; ++i) {
    rig.Speak(5);
    rig.Pause();
  }
  rig.Speak(3);
  rig.Pause(2);
  rig.executor.Hold();
  EXPECT_EQ(zelSttRecognizer_Update(rig.handle), 1u);
  rig.executor.WaitForExchanges(3);
  rig.host.on_sleep = [&] { rig.executor.LetGo(); };
  EXPECT_EQ(zelSttRecognizer_Reset(rig.handle), 1u);
  EXPECT_GE(rig.host.Count(SLOT(thread_sleep)), 1);
  EXPECT_EQ(rig.FilledSlots(), 0);
  EXPECT_EQ(rig.record->send_index, rig.record->fill_index);
  EXPECT_EQ(rig.record->utterance_length + rig.record->silent_frames, 0);
  EXPECT_EQ(rig.record->request->state, STT_REQUEST_IDLE);
  EXPECT_EQ(rig.DataSize(), kHeaderPages);
  EXPECT_EQ(rig.slots->PopTextPacket(rig.record), nullptr);
  EXPECT_EQ(zelPtrStack_GetCount(rig.record->text_blocks), 3u);
  for (int i = 0; i < 3; ++i)
    rig.Update();
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
