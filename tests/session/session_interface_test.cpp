#include "session_interface.h"

#include <functional>

#include "ogg_pages.h"
#include "packet_ref.h"
#include "session_rig.h"

namespace {

// Every operation, with arguments that pass, and with what it answers when it is refused.
TEST(SessionInterface, ChecksTheBodyFirstThenTheArgumentsThenLocks) {
  LibraryRig library;
  SessionRig rig(1);
  SttRecognizerPair stranger{};
  const SttSessionInterface& slots = *rig.slots;
  struct Refusal {
    const char* identifier;
    std::function<std::uint64_t(SttSessionBody*)> call;
  };
  const std::vector<Refusal> with_null_body = {
      {"E2022111456", [&](SttSessionBody* body) { return slots.Update(body), 0; }},
      {"E2022111457", slots.Attach},
      {"E2022111458", slots.Detach},
      {"E2022111459", slots.IsAttached},
      {"E2022111460", [&](SttSessionBody* body) { return slots.AcquireRecognizer(body) != nullptr; }},
      {"E2022111461", [&](SttSessionBody* body) { return slots.ReleaseRecognizer(body, &stranger); }},
      {"E2022111461", [&](SttSessionBody* body) { return slots.ReleaseRecognizer(body, nullptr); }},
      {"E2022111463", slots.ReleaseAllRecognizers},
      {"E2022111464", [&](SttSessionBody* body) { return slots.ResetRecognizersA(body), 0; }},
      {"E2022111464", [&](SttSessionBody* body) { return slots.ResetRecognizersB(body), 0; }},
      {"E2022111465", [&](SttSessionBody* body) { return slots.SetAccessToken(body, nullptr, 0); }},
      {"E2022121223", [&](SttSessionBody* body) { return slots.SetEndpointUrl(body, nullptr, 0); }},
  };
  const std::vector<Refusal> with_body = {
      {"E2022111462", [&](SttSessionBody* body) { return slots.ReleaseRecognizer(body, nullptr); }},
      {"E2022111466", [&](SttSessionBody* body) { return slots.SetAccessToken(body, nullptr, 0); }},
      {"E2022111467", [&](SttSessionBody* body) { return slots.SetAccessToken(body, "t", 0); }},
      {"E2022111467", [&](SttSessionBody* body) { return slots.SetAccessToken(body, "t", -1); }},
      {"E2022121224", [&](SttSessionBody* body) { return slots.SetEndpointUrl(body, nullptr, 0); }},
      {"E2022121225", [&](SttSessionBody* body) { return slots.SetEndpointUrl(body, "u", 0); }},
      {"E2022121225", [&](SttSessionBody* body) { return slots.SetEndpointUrl(body, "u", INT32_MIN); }},
  };
  library.host.ForgetCalls();
  for (const auto& [cases, body] :
       {std::pair(&with_null_body, static_cast<SttSessionBody*>(nullptr)), std::pair(&with_body, rig.body)}) {
    for (const Refusal& refusal : *cases) {
      EXPECT_EQ(refusal.call(body), 0u);
      EXPECT_EQ(library.host.TakeReports(), Reports{std::string("0 ") + refusal.identifier + " -2"});
    }
  }
  EXPECT_EQ(library.host.Count(SLOT(mutex_lock)), 0) << "refused before the mutex is taken";
  EXPECT_STREQ(rig.body->authorization, "");

  const std::function<void()> operations[] = {[&] { slots.Update(rig.body); },
                                              [&] { slots.Attach(rig.body); },
                                              [&] { slots.IsAttached(rig.body); },
                                              [&] { slots.Detach(rig.body); },
                                              [&] { slots.ReleaseRecognizer(rig.body, &stranger); },
                                              [&] { slots.AcquireRecognizer(rig.body); },
                                              [&] { slots.AcquireRecognizer(rig.body); },
                                              [&] { slots.SetAccessToken(rig.body, "t", 1); },
                                              [&] { slots.SetEndpointUrl(rig.body, "u", 1); }};
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
  SttRecognizerHn lent[3];
  for (SttRecognizerHn& recognizer : lent) {
    recognizer = rig.slots->AcquireRecognizer(rig.body);
    ASSERT_NE(recognizer, nullptr);
  }
  EXPECT_EQ(rig.slots->AcquireRecognizer(rig.body), nullptr);
  EXPECT_EQ(rig.slots->ReleaseRecognizer(rig.body, other.slots->AcquireRecognizer(other.body)), 0u);
  EXPECT_EQ(rig.slots->ReleaseRecognizer(rig.body, lent[1]), 1u);
  EXPECT_EQ(rig.slots->ReleaseRecognizer(rig.body, lent[1]), 0u);
  EXPECT_EQ(rig.slots->ReleaseRecognizer(rig.body, lent[0]), 1u);
  EXPECT_EQ(rig.body->free_list.count, 2u);
  EXPECT_EQ(rig.slots->AcquireRecognizer(rig.body), lent[1]) << "first back, first lent again";
  EXPECT_EQ(rig.slots->ReleaseRecognizer(rig.body, lent[2]), 1u);
  EXPECT_EQ(rig.slots->ReleaseRecognizer(rig.body, lent[1]), 1u);
  for (const int next : {0, 2, 1})
    EXPECT_EQ(rig.slots->AcquireRecognizer(rig.body), lent[next]);

  lent[0]->interface_table->SetMemberId(lent[0]->instance, 7);
  zelSttRecognizer_SetLanguage(lent[0], 2);
  zelSttRecognizer_EnableMember(lent[0], 0);
  EXPECT_EQ(rig.slots->ReleaseAllRecognizers(rig.body), 1u);
  EXPECT_EQ(rig.slots->ReleaseAllRecognizers(rig.body), 1u);
  EXPECT_EQ(rig.body->active_list.count, 0u);
  EXPECT_EQ(rig.body->active_list.tail, nullptr);
  for (const int next : {0, 2, 1})
    EXPECT_EQ(rig.slots->AcquireRecognizer(rig.body), lent[next]);
  EXPECT_EQ(lent[0]->instance->member_id, 0xFFFFFFFFu);
  EXPECT_EQ(lent[0]->instance->language, 0u);
  EXPECT_EQ(lent[0]->instance->enabled, 0u) << "as its previous member had it";
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

// From the host's frames to the host's texts; the recognizers that are free take no part.
TEST(SessionInterface, TurnsFramesIntoTexts) {
  LibraryRig library;
  ScriptedExecutor& executor = library.executor;
  SessionRig rig(3);
  rig.slots->SetEndpointUrl(rig.body, "https://service/stt", 19);
  rig.slots->SetAccessToken(rig.body, "secret", 6);
  library.host.clock = 5000;
  rig.slots->Attach(rig.body);
  SttRecognizerHn members[] = {rig.Acquire("anna"), rig.Acquire("bert")};
  members[1]->interface_table->SetMemberId(members[1]->instance, 22);
  EXPECT_EQ(zelRtcSpeechToTextSession_SetLanguage(rig.session, "bert", 1), 1u);
  const auto speak = [](SttRecognizerHn member, int frames) {
    const SttAudioFrame voice = {reinterpret_cast<const std::uint8_t*>("voice"), 5}, nothing = {nullptr, 0};
    for (int i = 0; i < frames + 7; ++i)
      EXPECT_EQ(member->interface_table->PutAudioFrame(member->instance, i < frames ? &voice : &nothing), 1u);
  };
  const auto update = [&](int times) {
    for (int i = 0; i < times; ++i) {
      rig.slots->Update(rig.body);
      library.host.WaitForWorkers();
    }
  };
  SttRecognizerHn idle = rig.body->free_list.head->recognizer;
  speak(idle, 5);
  executor.Reply(Recognized("hello"));
  speak(members[1], 5);
  EXPECT_TRUE(executor.exchanges().empty()) << "requests start only in updates";
  library.host.clock = 25'005'000;
  update(3);
  const std::vector<Exchange> exchanges = executor.exchanges();
  ASSERT_EQ(exchanges.size(), 1u);
  EXPECT_EQ(exchanges[0].url, "https://service/stt?language=en-US&speaker=bert");
  EXPECT_EQ(exchanges[0].headers[1].second, "Bearer secret");
  ExpectOpusStream(exchanges[0].body, std::vector<std::string>(5, "voice"));
  EXPECT_EQ(members[0]->interface_table->PopTextPacket(members[0]->instance), nullptr);
  PacketRef* packet = members[1]->interface_table->PopTextPacket(members[1]->instance);
  ASSERT_NE(packet, nullptr);
  EXPECT_STREQ(reinterpret_cast<const char*>(packet->payload->field_values[0]), "hello");
  EXPECT_EQ(packet->payload->field_values[2], 22u);
  EXPECT_EQ(packet->payload->field_values[3], 2'500'000u);
  zelPacketRef_Release(packet);

  // Both resets drop what active members have collected, and keep them.
  for (const auto reset : {rig.slots->ResetRecognizersA, rig.slots->ResetRecognizersB}) {
    speak(members[0], 5);
    reset(rig.body);
    EXPECT_EQ(members[0]->instance->utterance_slots[members[0]->instance->send_index].size, 0u);
    EXPECT_NE(idle->instance->utterance_slots[0].size, 0u);
    EXPECT_EQ(rig.body->active_list.count, 2u);
  }
  EXPECT_EQ(members[1]->instance->member_id, 22u);
  update(2);
  EXPECT_EQ(executor.exchanges().size(), 1u);

  // A release waits for the exchange in flight.
  executor.Hold();
  executor.Reply(Recognized("lost"));
  speak(members[0], 5);
  rig.slots->Update(rig.body);
  executor.WaitForExchanges(2);
  library.host.on_sleep = [&] { executor.LetGo(); };
  EXPECT_EQ(rig.slots->ReleaseAllRecognizers(rig.body), 1u);
  EXPECT_GE(library.host.Count(SLOT(thread_sleep)), 1);
  rig.slots->ResetRecognizersB(rig.body);
  rig.slots->Detach(rig.body);
}

}  // namespace
