#include "session_interface.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <functional>

#include "packet_ref.h"
#include "session_rig.h"

namespace {

// Every operation, with arguments that pass unless it says otherwise, and with what it reports when it is refused.
TEST(SessionInterface, ChecksTheBodyFirstThenTheArgumentsThenLocks) {
  LibraryRig library;
  SessionRig rig(1);
  SttSessionBody* const body = rig.body;
  SttRecognizerPair stranger{};
  const SttSessionInterface& slots = *rig.slots;
  library.host.ForgetCalls();
  slots.Update(nullptr);
  slots.ResetRecognizersA(nullptr);
  slots.ResetRecognizersB(nullptr);
  EXPECT_EQ(slots.AcquireRecognizer(nullptr), nullptr);
  const std::uint32_t zeros[] = {slots.Attach(nullptr),
                                 slots.Detach(nullptr),
                                 slots.IsAttached(nullptr),
                                 slots.ReleaseRecognizer(nullptr, nullptr),
                                 slots.ReleaseAllRecognizers(nullptr),
                                 slots.SetAccessToken(nullptr, nullptr, 0),
                                 slots.ReleaseRecognizer(body, nullptr),
                                 slots.SetAccessToken(body, nullptr, 0),
                                 slots.SetAccessToken(body, "t", 0),
                                 slots.SetAccessToken(body, "t", -1)};
  EXPECT_THAT(zeros, testing::Each(0u));
  EXPECT_EQ(
      library.host.TakeReports(),
      Refusals("111456 111464 111464 111460 111457 111458 111459 111461 111463 111465 111462 111466 111467 111467"));
  EXPECT_EQ(slots.SetEndpointUrl(nullptr, nullptr, 0) + slots.SetEndpointUrl(body, nullptr, 0), 0u);
  EXPECT_EQ(slots.SetEndpointUrl(body, "u", 0) + slots.SetEndpointUrl(body, "u", INT32_MIN), 0u);
  EXPECT_EQ(library.host.TakeReports(),
            (Reports{"0 E2022121223 -2", "0 E2022121224 -2", "0 E2022121225 -2", "0 E2022121225 -2"}));
  EXPECT_EQ(library.host.Count(SLOT(mutex_lock)), 0) << "refused before the mutex is taken";
  EXPECT_STREQ(body->authorization, "");

  const std::function<void()> operations[] = {[&] { slots.Update(body); },
                                              [&] { slots.Attach(body); },
                                              [&] { slots.IsAttached(body); },
                                              [&] { slots.Detach(body); },
                                              [&] { slots.ReleaseRecognizer(body, &stranger); },
                                              [&] { slots.AcquireRecognizer(body); },
                                              [&] { slots.AcquireRecognizer(body); },
                                              [&] { slots.SetAccessToken(body, "t", 1); },
                                              [&] { slots.SetEndpointUrl(body, "u", 1); }};
  for (const auto& operation : operations) {
    library.host.ForgetCalls();
    operation();
    ASSERT_EQ(library.host.Count(SLOT(mutex_lock)), 1);
    EXPECT_EQ(library.host.calls.front(), SLOT(mutex_lock)) << "held for the whole work";
    EXPECT_EQ(library.host.calls.back(), SLOT(mutex_unlock));
  }
}

TEST(SessionInterface, AttachesOnceAndSetsTheTimeBaseOfEveryRecognizer) {
  LibraryRig library;
  SessionRig rig(3);
  SttRecognizerHn active = rig.slots->AcquireRecognizer(rig.body);
  EXPECT_EQ(rig.slots->IsAttached(rig.body), 0u);
  EXPECT_EQ(rig.slots->Detach(rig.body), 0u);
  library.host.clock = 1000;
  EXPECT_EQ(rig.slots->Attach(rig.body), 1u);
  library.host.clock = 2000;
  EXPECT_EQ(rig.slots->Attach(rig.body), 0u);
  EXPECT_EQ(library.host.Count(SLOT(timer_get_count)), 1);
  EXPECT_EQ(active->instance->time_base, 1000u);
  for (SttRecognizerNode* node = rig.body->free_list.head; node != nullptr; node = node->next)
    EXPECT_EQ(node->recognizer->instance->time_base, 1000u);
  EXPECT_EQ(rig.slots->IsAttached(rig.body), 1u);
  EXPECT_EQ(rig.slots->Detach(rig.body), 1u);
  EXPECT_EQ(rig.slots->IsAttached(rig.body), 0u);
  EXPECT_EQ(rig.slots->Detach(rig.body), 0u);
  EXPECT_EQ(rig.slots->Attach(rig.body), 1u);
  EXPECT_EQ(active->instance->time_base, 2000u);
  rig.slots->Detach(rig.body);
}

TEST(SessionInterface, LendsRecognizersInTurn) {
  LibraryRig library;
  SessionRig rig(3), other(1);
  const SttRecognizerHn lent[] = {rig.Acquire(), rig.Acquire(), rig.Acquire()};
  EXPECT_EQ(std::ranges::count(lent, nullptr), 0);
  EXPECT_EQ(rig.Acquire(), nullptr);
  EXPECT_EQ(rig.Release(other.Acquire()), 0u);
  EXPECT_EQ(rig.Release(lent[1]), 1u);
  EXPECT_EQ(rig.Release(lent[1]), 0u);
  EXPECT_EQ(rig.Release(lent[0]), 1u);
  EXPECT_EQ(rig.body->free_list.count, 2u);
  EXPECT_EQ(rig.Acquire(), lent[1]) << "first back, first lent again";
  EXPECT_EQ(rig.Release(lent[2]), 1u);
  EXPECT_EQ(rig.Release(lent[1]), 1u);
  for (int round = 0; round < 2; ++round) {
    for (const int next : {0, 2, 1})
      EXPECT_EQ(rig.Acquire(), lent[next]);
    lent[0]->interface_table->SetMemberId(lent[0]->instance, 7);
    zelSttRecognizer_SetLanguage(lent[0], 2);
    zelSttRecognizer_EnableMember(lent[0], 0);
    EXPECT_EQ(rig.slots->ReleaseAllRecognizers(rig.body), 1u);
    EXPECT_EQ(rig.body->active_list.count, 0u);
    EXPECT_EQ(rig.body->active_list.tail, nullptr);
    EXPECT_EQ(lent[0]->instance->member_id, 0xFFFFFFFFu);
    EXPECT_EQ(lent[0]->instance->language, 0u);
    EXPECT_EQ(lent[0]->instance->enabled, 0u) << "as its previous member had it";
  }
  EXPECT_EQ(rig.slots->ReleaseAllRecognizers(rig.body), 1u);
}

TEST(SessionInterface, HandsEndpointAndTokenToEveryRecognizer) {
  LibraryRig library;
  SessionRig rig(2);
  SttRecognizerHn active = rig.slots->AcquireRecognizer(rig.body);
  SttRecognizerHn idle = rig.body->free_list.head->recognizer;
  EXPECT_EQ(rig.slots->SetEndpointUrl(rig.body, "http://a-long-one/", 1), 1u);
  EXPECT_EQ(rig.slots->SetEndpointUrl(rig.body, "http://a/", 1000), 1u);
  for (SttRecognizerHn recognizer : {active, idle}) {
    EXPECT_STREQ(recognizer->instance->request->url, "http://a/");
    EXPECT_EQ(recognizer->instance->request->url_length, 9u);
  }
  const std::string token(600, 't');
  EXPECT_EQ(rig.slots->SetAccessToken(rig.body, token.c_str(), 600), 1u);
  EXPECT_EQ(rig.body->authorization, ("Bearer " + token).substr(0, 519));
  EXPECT_EQ(rig.slots->SetAccessToken(rig.body, "short", 1), 1u);
  EXPECT_STREQ(active->instance->request->authorization, "Bearer short");
}

// Updates and resets reach the active members only; the recognizers that are free take no part.
TEST(SessionInterface, TurnsTheFramesOfActiveMembersIntoTexts) {
  LibraryRig library;
  ScriptedExecutor& executor = library.executor;
  SessionRig rig(3);
  rig.slots->SetEndpointUrl(rig.body, "https://service/stt", 19);
  rig.slots->SetAccessToken(rig.body, "secret", 6);
  SttRecognizerHn members[] = {rig.Acquire("anna"), rig.Acquire("bert")};
  SttRecognizerHn idle = rig.body->free_list.head->recognizer;
  const auto speak = [](SttRecognizerHn member) {
    const SttAudioFrame voice = {reinterpret_cast<const std::uint8_t*>("voice"), 5}, nothing = {nullptr, 0};
    for (int i = 0; i < 5 + 7; ++i)
      EXPECT_EQ(member->interface_table->PutAudioFrame(member->instance, i < 5 ? &voice : &nothing), 1u);
  };
  const auto update = [&](int times) {
    for (; times > 0; --times) {
      rig.slots->Update(rig.body);
      library.host.WaitForWorkers();
    }
  };
  speak(idle);
  executor.Reply(Recognized("hello"));
  speak(members[1]);
  EXPECT_TRUE(executor.exchanges().empty()) << "requests start only in updates";
  update(3);
  ASSERT_EQ(executor.exchanges().size(), 1u);
  EXPECT_EQ(executor.exchanges()[0].url, "https://service/stt?language=ja-JP&speaker=bert");
  EXPECT_EQ(executor.exchanges()[0].headers[1].second, "Bearer secret");
  EXPECT_EQ(members[0]->interface_table->PopTextPacket(members[0]->instance), nullptr);
  PacketRef* packet = members[1]->interface_table->PopTextPacket(members[1]->instance);
  ASSERT_NE(packet, nullptr);
  EXPECT_STREQ(reinterpret_cast<const char*>(packet->payload->field_values[0]), "hello");
  zelPacketRef_Release(packet);

  for (const auto reset : {rig.slots->ResetRecognizersA, rig.slots->ResetRecognizersB}) {
    speak(members[0]);
    reset(rig.body);
    EXPECT_EQ(members[0]->instance->utterance_slots[members[0]->instance->send_index].size, 0u);
    EXPECT_NE(idle->instance->utterance_slots[0].size, 0u);
    EXPECT_EQ(rig.body->active_list.count, 2u);
  }
}

}  // namespace
