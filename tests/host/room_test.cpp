#include "room.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <optional>
#include <thread>

#include "http_server.h"
#include "library.h"
#include "reports.h"

namespace zel::host {
namespace {

using namespace std::chrono_literals;
using kit::Script;
using testing::ElementsAre;
using enum FrameResult;

kit::Step reply(const std::string& text) {
  return kit::Send(kit::Reply("200 OK", R"({"result":"success","version":"1","text":")" + text + "\"}"));
}
Script answer(const std::string& text) {
  return {kit::ReadRequest(), reply(text)};
}
Script held(const std::string& text) {  // until the server releases it
  return {kit::ReadRequest(), kit::Stall(), reply(text)};
}

class RoomTest : public testing::Test {
 protected:
  RoomTest() {
    kit::UseNoProxy();
    set_report_sink([this](const Report&) { ++reports_; });
  }
  ~RoomTest() override {
    if (service_ != nullptr) service_->Release();
    room_.reset();
    set_report_sink({});
  }

  // Opens the room; the n-th utterance to reach the service gets the n-th answer, further ones the last.
  void open(std::vector<Script> answers, const std::vector<std::string>& members) {
    service_ = std::make_unique<kit::HttpServer>(std::move(answers));
    room_.emplace(session_.handle(),
                  RoomEvents{[this](const RoomText& text) {
                               events_.push_back(text.client_id + std::to_string(text.utterance) + ": " + text.text);
                             },
                             [this](const MemberLedger& ledger) {
                               EXPECT_TRUE(ledger.balanced());
                               EXPECT_EQ(ledger.waiting, 0U);
                               departed_.push_back(ledger);
                               events_.push_back(ledger.client_id + " left");
                             }});
    room_->set_endpoint("http://127.0.0.1:" + std::to_string(service_->port()) + "/stt");
    room_->set_token("token");
    for (std::uint32_t id = 1; id <= members.size(); ++id)
      room_->add_member(id, members[id - 1]);
  }

  FrameResult audio(std::uint32_t member, std::size_t size = 40) {
    return room_->feed(member, std::span(packet_).first(size));
  }
  FrameResult silence(std::uint32_t member) { return room_->feed(member, {}); }
  // An utterance of `frames` frames, and its pause.
  void say(std::uint32_t member, int frames = 10) {
    for (int i = 0; i < frames; ++i)
      ASSERT_EQ(audio(member), kTaken);
    for (int i = 0; i < 7; ++i)
      ASSERT_EQ(silence(member), kTaken);
  }
  // Pumps until that holds; the test's own time limit ends it otherwise.
  template <typename Condition>
  void pump_until(Condition condition) {
    for (room_->pump(); !condition(); room_->pump())
      std::this_thread::sleep_for(1ms);
  }
  void pump_until_answered() {
    pump_until([this] { return room_->waiting() == 0; });
  }
  void pump_until_requests(std::size_t count) {
    pump_until([this, count] { return service_->requests().size() == count; });
  }

  Library library_;
  Session session_{session_config(3)};
  std::unique_ptr<kit::HttpServer> service_;
  std::optional<Room> room_;
  std::array<std::uint8_t, 300> packet_{0x58};
  std::vector<std::string> events_;  // texts with their numbers, and who left
  std::vector<MemberLedger> departed_;
  std::atomic<int> reports_{0};
};

TEST_F(RoomTest, MembersSpeakAndAreHeard) {
  open({answer("one"), answer("one"), answer("two"), answer("three")}, {"alice", "bob"});
  say(1);
  say(2, 4);
  say(2, 5);
  EXPECT_EQ(room_->waiting(1), 1U);
  EXPECT_EQ(room_->waiting(), 2U);
  pump_until_answered();
  EXPECT_THAT(events_, testing::UnorderedElementsAre("alice1: one", "bob1: one"));
  say(1, 1501);  // the 1500th ends an utterance, the rest is too short
  pump_until_answered();
  EXPECT_EQ(events_.back(), "alice2: two");
  EXPECT_EQ(room_->ledger(2).too_short, 1U);

  for (int i = 0; i < 10; ++i)
    audio(1);
  EXPECT_TRUE(session_.set_enabled("alice", false));
  EXPECT_EQ(audio(1), kDisabled);
  room_->pump();
  EXPECT_EQ(room_->ledger(1).dropped, 2U) << "what was collected is gone";
  EXPECT_TRUE(session_.set_enabled("alice", true));
  say(1);
  room_->leave(1);
  EXPECT_THAT(events_, testing::IsSupersetOf({"alice3: three", "alice left"}));
  const MemberLedger& alice = departed_.at(0);
  EXPECT_THAT((std::array{alice.frames, alice.audio_frames, alice.disabled_frames}),
              ElementsAre(17 + 1508 + 10 + 17, 10 + 1501 + 10 + 10, 1));
  EXPECT_THAT((std::array{alice.ended, alice.too_short, alice.posted, alice.delivered}), ElementsAre(5, 1, 3, 3));
  EXPECT_EQ(room_->ledgers().size(), 1U);
  EXPECT_EQ(reports_, 0);
}

TEST_F(RoomTest, LastWordsOfALeavingMemberArriveWhileOthersGoOn) {
  open({held("one"), answer("two"), answer("three"), answer("four")}, {"alice", "bob"});
  say(1);
  for (int i = 0; i < 10; ++i)
    audio(1);  // and leaves in mid-sentence
  room_->begin_leave(1, std::chrono::milliseconds::max());
  EXPECT_EQ(audio(1), kNoSuchMember);
  EXPECT_THROW(room_->add_member(1, "alice"), RoomError);
  pump_until_requests(1);
  for (const char* text : {"bob1: two", "bob2: three"}) {
    say(2);
    pump_until([&] { return !events_.empty() && events_.back() == text; });
  }
  service_->Release();
  pump_until([this] { return !room_->has_member(1); });
  EXPECT_THAT(events_, ElementsAre("bob1: two", "bob2: three", "alice1: one", "alice2: four", "alice left"));

  room_->add_member(1, "alice");  // comes back, to a recognizer that starts afresh
  say(1);
  room_->leave(1);
  EXPECT_EQ(departed_.at(0).delivered, 2U);
  EXPECT_EQ(departed_.at(1).delivered, 1U);
}

TEST_F(RoomTest, DeadlineOfALeaveHoldsUpNobodysAudio) {
  open({held("late")}, {"alice", "bob"});
  say(1);
  say(1);
  pump_until_requests(1);
  room_->begin_leave(1, 0ms);
  std::thread others([this] {
    // The recognizer is being taken back: that waits for the service, and nobody else does.
    while (room_->has_member(1))
      std::this_thread::yield();
    say(2);
    service_->Release();
  });
  room_->pump();
  others.join();
  EXPECT_THAT(events_, ElementsAre("alice left"));
  EXPECT_EQ(departed_.at(0).lost, 2U);
  EXPECT_EQ(reports_, 0) << "somebody waited until the exchange had timed out";
}

TEST_F(RoomTest, ResetLosesWhatWasNotAnsweredAndNothingElse) {
  open({answer("one"), held("late"), answer("two")}, {"alice", "bob", "carol"});
  say(1);
  pump_until_answered();
  say(1);
  say(1);
  for (int i = 0; i < 10; ++i)
    audio(1);  // in mid-sentence
  audio(3);    // too short to count
  pump_until_requests(2);
  std::thread resetting([this] { room_->reset(); });
  while (silence(2) == kTaken)  // until the reset refuses it, without waiting for the service
    std::this_thread::yield();
  service_->Release();
  resetting.join();
  const MemberLedger alice = room_->ledger(1);
  EXPECT_TRUE(alice.balanced());
  EXPECT_THAT((std::array{alice.delivered, alice.lost, alice.unfinished, alice.waiting}), ElementsAre(1, 3, 1, 0));
  EXPECT_EQ(room_->ledger(3).too_short, 1U);
  EXPECT_EQ(room_->ledger(3).unheard(), 0U);
  say(1);
  room_->close();
  EXPECT_THAT(events_, testing::IsSupersetOf({"alice1: one", "alice4: two"}));
}

TEST_F(RoomTest, NothingIsLostWhenTheServiceCannotKeepUp) {
  open({held("text")}, {"alice"});
  for (int i = 0; i < 12 * 17; ++i) {
    const auto feed = [&] { return i % 17 < 10 ? audio(1, 250) : silence(1); };
    if (feed() != kFull) continue;
    EXPECT_EQ(room_->waiting(1), kMaxWaiting);
    EXPECT_FALSE(room_->can_accept(1));
    service_->Release();
    pump_until([&] { return feed() == kTaken; });
  }
  EXPECT_GT(room_->ledger(1).refused_frames, 0U);
  room_->leave(1);
  EXPECT_EQ(departed_.at(0).delivered, 12U);
  EXPECT_EQ(departed_.at(0).dropped, 0U);
  EXPECT_EQ(reports_, 0);
}

TEST_F(RoomTest, UtterancesStayWithinTheBodyLimit) {
  open({answer("text")}, {"alice", "bob"});
  // Alice never pauses. Bob's packets are smaller but for a breath now and then.
  constexpr int kFrames = 2010;
  for (int i = 0; i < kFrames; ++i) {
    for (const auto& [member, size] : {std::pair<std::uint32_t, std::size_t>{1, 256}, {2, i % 50 == 49 ? 20 : 200}}) {
      while (audio(member, size) == kFull)
        pump_until([&, id = member] { return room_->can_accept(id); });
    }
  }
  room_->close();
  for (const std::string& request : service_->requests())
    EXPECT_LE(request.size() - request.find("\r\n\r\n") - 4, 81920U);
  for (const MemberLedger& ledger : departed_) {
    EXPECT_EQ(ledger.audio_frames, 0U + kFrames);
    EXPECT_EQ(ledger.delivered, ledger.forced_pauses + 1);
    EXPECT_GE(ledger.forced_pauses, ledger.member_id == 1 ? 6U : 5U);
    EXPECT_EQ(ledger.dropped, 0U);
  }
  EXPECT_EQ(reports_, 0);
}

TEST_F(RoomTest, EveryAnswerGoesToItsAccount) {
  const kit::Step no = kit::Send(kit::Reply("500 No", R"({"result":"error","error_message":"no"})"));
  const Script refusal = {kit::ReadRequest(), kit::Stall(), no};
  const Script too_long = held(std::string(1300, 'x'));  // for a reply
  open({refusal, held(""), too_long, answer("four")}, {"alice", "bob", "carol"});
  for (std::uint32_t id = 1; id <= 3; ++id) {  // three exchanges under way, in this order, which end together
    say(id);
    pump_until_requests(id);
    EXPECT_EQ(room_->ledger(id).posted, 1U);
  }
  service_->Release();
  pump_until_answered();
  for (std::uint32_t id = 1; id <= 3; ++id)
    say(id);
  room_->close();
  EXPECT_THAT(events_, testing::IsSupersetOf({"alice2: four", "bob2: four", "carol2: four"}));
  std::vector<std::array<std::uint64_t, 6>> accounts;
  for (const MemberLedger& each : departed_)
    accounts.push_back({each.member_id, each.delivered, each.empty, each.failed, each.failures[0], each.failures[1]});
  EXPECT_THAT(accounts, testing::UnorderedElementsAre(ElementsAre(1, 1, 0, 1, 1, 0), ElementsAre(2, 2, 1, 0, 0, 0),
                                                      ElementsAre(3, 1, 0, 1, 0, 1)));
}

TEST_F(RoomTest, RefusesWithoutHarm) {
  using enum RoomErrorCode;
  open({answer("text")}, {"alice", std::string(511, 'x')});
  const auto expect_refused = [](RoomErrorCode code, const std::vector<std::function<void()>>& operations) {
    for (std::size_t i = 0; i < operations.size(); ++i) {
      SCOPED_TRACE(i);
      const auto has_code = testing::Property(&RoomError::code, code);
      EXPECT_THAT(operations[i], testing::Throws<RoomError>(has_code)) << static_cast<int>(code);
    }
  };
  expect_refused(kDuplicateMember, {[&] { room_->add_member(1, "bob"); }, [&] { room_->add_member(3, "alice"); }});
  expect_refused(kInvalidArgument,
                 {[&] { room_->add_member(3, ""); }, [&] { room_->add_member(3, std::string(512, 'x')); },
                  [&] { room_->add_member(3, std::string_view("a\0b", 3)); },
                  [&] { room_->set_token(std::string(505, 'x')); }, [&] { room_->set_endpoint(""); }});
  expect_refused(kNoSuchMember, {[&] { room_->begin_leave(5); }, [&] { room_->ledger(5); }});
  expect_refused(kSessionInUse, {[&] { Room second(session_.handle()); }, [&] { Room none(nullptr); }});
  room_->add_member(3, "bob");
  expect_refused(kNoFreeRecognizer, {[&] { room_->add_member(4, "carol"); }});
  EXPECT_EQ(audio(5), FrameResult::kNoSuchMember);
  EXPECT_EQ(audio(1, 257), kTooLong);
  EXPECT_FALSE(room_->can_accept(5));
  EXPECT_EQ(room_->member_count(), 3U);
  say(1);
  room_->close();
  EXPECT_THAT(events_, testing::Contains("alice1: text"));
  expect_refused(kClosed, {[&] { room_->add_member(4, "carol"); }, [&] { room_->set_token("x"); }});
  EXPECT_EQ(room_->pump(), 0U);
  EXPECT_EQ(reports_, 0);
  room_.emplace(session_.handle());  // the session is free again
}

}  // namespace
}  // namespace zel::host
