#include "room.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "http_server.h"
#include "library.h"
#include "reports.h"

namespace zel::host {
namespace {

using namespace std::chrono_literals;
using kit::Script;
using testing::ElementsAre;

// Frames in the Ogg stream that a request carries, by the granule position of its last page.
std::size_t frames_in(std::string_view request) {
  std::uint64_t granule = 0;
  std::memcpy(&granule, request.substr(request.rfind("OggS") + 6).data(), sizeof granule);
  return granule / 1920;
}

Script answer(const std::string& text) {
  const std::string reply = R"({"result":"success","version":"1","text":")" + text + "\"}";
  return {kit::ReadRequest(), kit::Send(kit::Reply("200 OK", reply))};
}
Script held(const std::string& text) {  // until the server releases it
  return {kit::ReadRequest(), kit::Stall(), answer(text)[1]};
}

// What a member's ledger must say: delivered, of these empty, and failed by the first two reports.
struct Accounts {
  std::string client_id;
  std::uint64_t delivered, empty;
  std::array<std::uint64_t, 2> failures;

  friend bool operator==(const MemberLedger& ledger, const Accounts& accounts) {
    return ledger.client_id == accounts.client_id && ledger.delivered == accounts.delivered &&
           ledger.empty == accounts.empty && ledger.failures[0] == accounts.failures[0] &&
           ledger.failures[1] == accounts.failures[1] && ledger.failed == accounts.failures[0] + accounts.failures[1];
  }
};

class RoomTest : public testing::Test {
 protected:
  RoomTest() {
    kit::UseNoProxy();
    set_report_sink([this](const Report& report) {
      std::lock_guard hold(reports_lock_);
      reports_.emplace_back(report.identifier);
    });
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
                  RoomEvents{[this](const RoomText& text) { events_.push_back(text.client_id + ": " + text.text); },
                             [this](const MemberLedger& record) { left(record); }});
    room_->set_endpoint("http://127.0.0.1:" + std::to_string(service_->port()) + "/stt");
    room_->set_token("token");
    for (std::uint32_t id = 1; id <= members.size(); ++id)
      room_->add_member(id, members[id - 1]);
  }
  void left(const MemberLedger& ledger) {
    EXPECT_TRUE(ledger.balanced());
    EXPECT_EQ(ledger.waiting, 0U);
    departed_.push_back(ledger);
    events_.push_back(ledger.client_id + " left");
  }

  FrameResult audio(std::uint32_t member, std::size_t size = 40) {
    return room_->feed(member, std::span(packet_).first(size));
  }
  FrameResult silence(std::uint32_t member) { return room_->feed(member, {}); }
  // An utterance of `frames` frames, and its pause.
  void say(std::uint32_t member, int frames = 10) {
    for (int i = 0; i < frames; ++i)
      ASSERT_EQ(audio(member), FrameResult::kTaken);
    for (int i = 0; i < 7; ++i)
      ASSERT_EQ(silence(member), FrameResult::kTaken);
  }
  // Pumps until that holds; the test's own time limit ends it otherwise.
  template <typename Condition>
  void pump_until(Condition condition) {
    for (room_->pump(); !condition(); room_->pump())
      std::this_thread::sleep_for(1ms);
  }

  Library library_;
  Session session_{session_config(3)};
  std::unique_ptr<kit::HttpServer> service_;
  std::optional<Room> room_;
  std::array<std::uint8_t, 300> packet_{0x58};
  std::vector<std::string> events_;  // texts, and who left
  std::vector<MemberLedger> departed_;
  std::mutex reports_lock_;
  std::vector<std::string> reports_;  // read when nothing is on its way
};

TEST_F(RoomTest, MembersSpeakAndAreHeard) {
  open({answer("one"), answer("one"), answer("two")}, {"alice", "bob"});
  say(1);
  say(2, 4);
  say(2, 5);
  EXPECT_EQ(room_->waiting(1), 1U);
  EXPECT_EQ(room_->waiting(), 2U);
  pump_until([this] { return room_->waiting() == 0; });
  EXPECT_THAT(events_, testing::UnorderedElementsAre("alice: one", "bob: one"));
  say(1, 1501);  // the 1500th ends an utterance, the rest is too short
  pump_until([this] { return room_->waiting() == 0; });
  EXPECT_EQ(events_.back(), "alice: two");

  const MemberLedger alice = room_->ledger(1);
  EXPECT_EQ(alice.frames, 10U + 7 + 1501 + 7);
  EXPECT_EQ(alice.audio_frames, 1511U);
  EXPECT_THAT((std::array{alice.ended, alice.too_short, alice.posted, alice.delivered}), ElementsAre(3, 1, 2, 2));
  EXPECT_EQ(room_->ledger(2).too_short, 1U);
  EXPECT_EQ(room_->ledgers().size(), 2U);
  room_->close();
  EXPECT_EQ(departed_.size(), 2U);
  EXPECT_THAT(reports_, ElementsAre());
}

TEST_F(RoomTest, LastWordsOfALeavingMemberArriveWhileOthersGoOn) {
  open({held("one"), answer("two"), answer("three"), answer("four")}, {"alice", "bob"});
  say(1);
  for (int i = 0; i < 10; ++i)
    audio(1);  // and leaves in mid-sentence
  room_->begin_leave(1);
  EXPECT_EQ(audio(1), FrameResult::kNoSuchMember);
  EXPECT_THROW(room_->add_member(1, "alice"), RoomError);
  pump_until([this] { return service_->requests().size() == 1; });
  for (const char* text : {"bob: two", "bob: three"}) {
    say(2);
    pump_until([&] { return !events_.empty() && events_.back() == text; });
  }
  EXPECT_TRUE(room_->has_member(1));
  service_->Release();
  pump_until([this] { return !room_->has_member(1); });
  EXPECT_THAT(events_, ElementsAre("bob: two", "bob: three", "alice: one", "alice: four", "alice left"));

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
  pump_until([this] { return service_->requests().size() == 1; });
  room_->begin_leave(1, 0ms);
  std::thread others([this] {
    // The recognizer is being taken back: that waits for the service, and nobody else does.
    while (room_->has_member(1))
      std::this_thread::yield();
    for (int i = 0; i < 10; ++i)
      EXPECT_EQ(audio(2), FrameResult::kTaken);
    service_->Release();
  });
  room_->pump();
  others.join();
  EXPECT_THAT(events_, ElementsAre("alice left"));
  EXPECT_EQ(departed_.at(0).lost, 2U);
}

TEST_F(RoomTest, NothingIsLostWhenTheServiceCannotKeepUp) {
  open({held("text")}, {"alice"});
  for (int i = 0; i < 12 * 17; ++i) {
    const auto feed = [&] { return i % 17 < 10 ? audio(1, 250) : silence(1); };
    if (feed() != FrameResult::kFull) continue;
    EXPECT_EQ(room_->waiting(1), kMaxWaiting);
    EXPECT_FALSE(room_->can_accept(1));
    service_->Release();
    pump_until([&] { return feed() == FrameResult::kTaken; });
  }
  EXPECT_GT(room_->ledger(1).refused_frames, 0U);
  room_->leave(1);
  EXPECT_EQ(departed_.at(0).delivered, 12U);
  EXPECT_EQ(departed_.at(0).dropped, 0U);
  EXPECT_THAT(reports_, ElementsAre());
}

TEST_F(RoomTest, UtterancesStayWithinTheBodyLimit) {
  open({answer("text")}, {"alice", "bob"});
  // Alice never pauses. Bob's packets are smaller but for a breath now and then.
  constexpr std::size_t kFrames = 2010;
  for (std::size_t i = 0; i < kFrames; ++i) {
    for (const auto& [member, size] : {std::pair<std::uint32_t, std::size_t>{1, 256}, {2, i % 50 == 49 ? 20 : 200}}) {
      while (audio(member, size) == FrameResult::kFull)
        pump_until([&, id = member] { return room_->can_accept(id); });
    }
  }
  room_->close();
  std::size_t frames = 0;
  for (const std::string& request : service_->requests()) {
    EXPECT_LE(request.size() - request.find("\r\n\r\n") - 4, 81920U);
    frames += frames_in(request);
  }
  EXPECT_EQ(frames, 2 * kFrames) << "every frame arrives";
  for (const MemberLedger& ledger : departed_) {
    EXPECT_EQ(ledger.delivered, ledger.forced_pauses + 1);
    EXPECT_GE(ledger.forced_pauses, ledger.member_id == 1 ? 6U : 5U);
    EXPECT_EQ(ledger.dropped, 0U);
  }
  EXPECT_THAT(reports_, ElementsAre());
}

TEST_F(RoomTest, EveryAnswerGoesToItsAccount) {
  const Script refusal = {kit::ReadRequest(), kit::Stall(),
                          kit::Send(kit::Reply("500 No", R"({"result":"error","error_message":"no"})"))};
  const Script too_long = held(std::string(1300, 'x'));  // for a reply
  open({refusal, held(""), too_long, answer("four")}, {"alice", "bob", "carol"});
  for (std::uint32_t id = 1; id <= 3; ++id) {  // three exchanges under way, in this order, which end together
    say(id);
    pump_until([&] { return service_->requests().size() == id; });
    EXPECT_EQ(room_->ledger(id).posted, 1U);
  }
  service_->Release();
  pump_until([this] { return room_->waiting() == 0; });
  for (std::uint32_t id = 1; id <= 3; ++id)
    say(id);
  room_->close();
  EXPECT_THAT(events_, testing::IsSupersetOf({"alice: four", "bob: four", "carol: four"}));
  EXPECT_THAT(departed_, testing::UnorderedElementsAre(Accounts{"alice", 1, 0, {1, 0}}, Accounts{"bob", 2, 1, {0, 0}},
                                                       Accounts{"carol", 1, 0, {0, 1}}));
}

TEST_F(RoomTest, ResetLosesWhatWasNotAnsweredAndNothingElse) {
  open({answer("one"), held("late"), answer("two")}, {"alice", "bob"});
  say(1);
  pump_until([this] { return room_->waiting() == 0; });
  say(1);
  say(1);
  audio(1);  // in mid-sentence
  pump_until([this] { return service_->requests().size() == 2; });
  std::thread resetting([this] { room_->reset(); });
  while (silence(2) == FrameResult::kTaken)  // until the reset refuses it, without waiting for the service
    std::this_thread::yield();
  service_->Release();
  resetting.join();
  const MemberLedger alice = room_->ledger(1);
  EXPECT_TRUE(alice.balanced());
  EXPECT_THAT((std::array{alice.delivered, alice.lost, alice.waiting}), ElementsAre(1, 3, 0));
  say(1);
  room_->close();
  EXPECT_THAT(events_, testing::IsSupersetOf({"alice: one", "alice: two"}));
}

TEST_F(RoomTest, DisabledMemberIsNotHeard) {
  open({answer("text")}, {"alice"});
  for (int i = 0; i < 10; ++i)
    audio(1);
  EXPECT_TRUE(session_.set_enabled("alice", false));
  EXPECT_EQ(audio(1), FrameResult::kDisabled);
  room_->pump();
  EXPECT_EQ(room_->ledger(1).dropped, 1U) << "what was collected is gone";
  EXPECT_TRUE(session_.set_enabled("alice", true));
  say(1);
  room_->leave(1);
  EXPECT_THAT(events_, ElementsAre("alice: text", "alice left"));
  EXPECT_EQ(departed_.at(0).disabled_frames, 1U);
}

TEST_F(RoomTest, RefusesWithoutHarm) {
  using enum RoomErrorCode;
  open({answer("text")}, {"alice", std::string(511, 'x')});
  const auto expect_refused = [](const std::vector<std::pair<RoomErrorCode, std::function<void()>>>& cases) {
    for (const auto& [code, operation] : cases) {
      try {
        operation();
        ADD_FAILURE() << "not refused with code " << static_cast<int>(code);
      } catch (const RoomError& refusal) {
        EXPECT_EQ(refusal.code(), code) << refusal.what();
      }
    }
  };
  expect_refused({{kDuplicateMember, [&] { room_->add_member(1, "bob"); }},
                  {kDuplicateMember, [&] { room_->add_member(3, "alice"); }},
                  {kInvalidArgument, [&] { room_->add_member(3, ""); }},
                  {kInvalidArgument, [&] { room_->add_member(3, std::string(512, 'x')); }},
                  {kInvalidArgument, [&] { room_->add_member(3, std::string_view("a\0b", 3)); }},
                  {kInvalidArgument, [&] { room_->set_token(std::string(505, 'x')); }},
                  {kInvalidArgument, [&] { room_->set_endpoint(""); }},
                  {kNoSuchMember, [&] { room_->begin_leave(5); }},
                  {kNoSuchMember, [&] { room_->ledger(5); }},
                  {kSessionInUse, [&] { Room second(session_.handle()); }},
                  {kSessionInUse, [&] { Room none(nullptr); }}});
  room_->add_member(3, "bob");
  expect_refused({{kNoFreeRecognizer, [&] { room_->add_member(4, "carol"); }}});
  EXPECT_EQ(audio(5), FrameResult::kNoSuchMember);
  EXPECT_EQ(audio(1, 257), FrameResult::kTooLong);
  EXPECT_FALSE(room_->can_accept(5));
  EXPECT_EQ(room_->member_count(), 3U);
  say(1);
  room_->close();
  EXPECT_THAT(events_, testing::Contains("alice: text"));
  expect_refused({{kClosed, [&] { room_->add_member(4, "carol"); }}, {kClosed, [&] { room_->set_token("x"); }}});
  EXPECT_EQ(room_->pump(), 0U);
  EXPECT_THAT(reports_, ElementsAre());
  room_.emplace(session_.handle());  // the session is free again
}

}  // namespace
}  // namespace zel::host
