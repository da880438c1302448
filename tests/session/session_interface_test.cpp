#include "session_interface.h"

#include <gmock/gmock.h>

#include <functional>

#include "session_rig.h"

namespace {

// Every operation, refused and not.
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
  EXPECT_FALSE(slots.AcquireRecognizer(nullptr) || slots.Attach(nullptr) || slots.Detach(nullptr) ||
               slots.IsAttached(nullptr) || slots.ReleaseRecognizer(nullptr, nullptr) ||
               slots.ReleaseAllRecognizers(nullptr) || slots.SetAccessToken(nullptr, nullptr, 0) ||
               slots.ReleaseRecognizer(body, nullptr) || slots.SetAccessToken(body, nullptr, 0) ||
               slots.SetAccessToken(body, "t", 0) || slots.SetAccessToken(body, "t", -1) ||
               slots.SetEndpointUrl(nullptr, nullptr, 0) || slots.SetEndpointUrl(body, nullptr, 0) ||
               slots.SetEndpointUrl(body, "u", 0) || slots.SetEndpointUrl(body, "u", INT32_MIN));
  EXPECT_EQ(library.host.TakeReports(),
            Refusals("111456 111464 111464 111460 111457 111458 111459 111461 111463 111465 111462 111466 111467 "
                     "111467 121223 121224 121225 121225"));
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
  SessionRig rig(2);
  const SttRecognizer* const recognizers[] = {rig.Acquire()->instance, rig.body->free_list.head->recognizer->instance};
  for (const std::uint64_t time : {1000u, 2000u}) {
    library.host.clock = time;
    EXPECT_EQ(rig.slots->Detach(rig.body) + rig.slots->IsAttached(rig.body), 0u);
    EXPECT_EQ(rig.slots->Attach(rig.body), 1u);
    ++library.host.clock;
    EXPECT_EQ(rig.slots->Attach(rig.body), 0u);
    for (const SttRecognizer* recognizer : recognizers)
      EXPECT_EQ(recognizer->time_base, time);
    EXPECT_EQ(rig.slots->IsAttached(rig.body), 1u);
    EXPECT_EQ(rig.slots->Detach(rig.body), 1u);
  }
}

TEST(SessionInterface, LendsRecognizersInTurn) {
  LibraryRig library;
  SessionRig rig(3), other(1);
  const SttRecognizerHn lent[] = {rig.Acquire(), rig.Acquire(), rig.Acquire()};
  EXPECT_THAT(lent, testing::Each(testing::NotNull()));
  EXPECT_EQ(rig.Acquire(), nullptr);
  EXPECT_EQ(rig.Release(other.Acquire()), 0u);
  EXPECT_EQ(rig.Release(lent[1]), 1u);
  EXPECT_EQ(rig.Release(lent[1]), 0u);
  EXPECT_EQ(rig.Release(lent[0]), 1u);
  EXPECT_EQ(rig.body->free_list.count, 2u);
  EXPECT_EQ(rig.Acquire(), lent[1]) << "first back, first lent again";
  lent[2]->interface_table->SetMemberId(lent[2]->instance, 7);
  EXPECT_EQ(rig.slots->ReleaseAllRecognizers(rig.body), 1u);
  EXPECT_EQ(lent[2]->instance->member_id, 0xFFFFFFFFu) << "recycled";
  EXPECT_EQ(rig.body->active_list.count, 0u);
  for (const int next : {0, 2, 1})
    EXPECT_EQ(rig.Acquire(), lent[next]);
}

TEST(SessionInterface, HandsEndpointAndTokenToEveryRecognizerAndResetsTheActiveOnes) {
  LibraryRig library;
  SessionRig rig(2);
  const std::string token(600, 't');
  EXPECT_EQ(rig.slots->SetAccessToken(rig.body, token.c_str(), 600), 1u);
  EXPECT_EQ(rig.body->authorization, ("Bearer " + token).substr(0, 519));
  EXPECT_EQ(rig.slots->SetAccessToken(rig.body, "short", 1), 1u);
  EXPECT_EQ(rig.slots->SetEndpointUrl(rig.body, "http://a-longer-one/", 1), 1u);
  EXPECT_EQ(rig.slots->SetEndpointUrl(rig.body, "http://a/", 1000), 1u);
  SttRecognizer* const active = rig.Acquire()->instance;
  SttRecognizer* const idle = rig.body->free_list.head->recognizer->instance;
  for (const SttRecognizer* recognizer : {active, idle}) {
    EXPECT_STREQ(recognizer->request->url, "http://a/");
    EXPECT_EQ(recognizer->request->url_length, 9u);
    EXPECT_STREQ(recognizer->request->authorization, "Bearer short");
  }
  for (const auto reset : {rig.slots->ResetRecognizersA, rig.slots->ResetRecognizersB}) {
    active->silent_frames = idle->silent_frames = 3;
    reset(rig.body);
    EXPECT_EQ(active->silent_frames, 0);
    EXPECT_EQ(idle->silent_frames, 3);
    EXPECT_EQ(rig.body->active_list.count, 1u);
  }
}

}  // namespace
