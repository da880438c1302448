#include "room.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <array>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "library.h"
#include "reports.h"

namespace zel::host {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

std::string success(const std::string& text) {
  return R"({"result":"success","version":"1","text":")" + text + "\"}";
}
const std::string kError = R"({"result":"error","error_code":"E1","error_message":"no"})";

// Packets in an Ogg stream: its lacing values below 255, the two header packets not counted.
std::size_t packets_in(const std::string& stream) {
  std::size_t packets = 0;
  for (std::size_t page = 0; page + 27 <= stream.size();) {
    const auto segments = static_cast<std::uint8_t>(stream[page + 26]);
    std::size_t body = 0;
    for (std::size_t i = 0; i < segments; ++i) {
      const auto lacing = static_cast<std::uint8_t>(stream.at(page + 27 + i));
      body += lacing;
      packets += lacing < 255 ? 1 : 0;
    }
    page += 27 + segments + body;
  }
  return packets - 2;
}

// A speech service on loopback: answers each speaker with its number of utterances so far, or as told; can be made to
// hold its answers back.
class Service {
 public:
  Service() {
    server_.new_task_queue = [] { return new httplib::ThreadPool(4); };
    server_.Post("/stt", [this](const httplib::Request& request, httplib::Response& response) {
      const std::string speaker = request.get_param_value("speaker");
      std::unique_lock hold(lock_);
      bodies_.emplace_back(speaker, request.body);
      const std::string number = speaker + " " + std::to_string(++utterances_[speaker]);
      arrived_.notify_all();
      opened_.wait(hold, [&] { return held_.count(speaker) == 0; });
      const auto told = replies_.find(number);
      response.set_content(told != replies_.end() ? told->second : success(number), "application/json");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running())
      std::this_thread::yield();
  }
  ~Service() {
    open();
    server_.stop();
    thread_.join();
  }

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/stt"; }
  void hold(const std::string& speaker) {
    std::lock_guard hold(lock_);
    held_[speaker] = true;
  }
  void open() {
    std::lock_guard hold(lock_);
    held_.clear();
    opened_.notify_all();
  }
  void wait_for_utterances(std::size_t count) {
    std::unique_lock hold(lock_);
    EXPECT_TRUE(arrived_.wait_for(hold, 30s, [&] { return bodies_.size() >= count; }));
  }
  void reply(const std::string& number, const std::string& body) {
    std::lock_guard hold(lock_);
    replies_[number] = body;
  }
  std::vector<std::string> bodies() {
    std::lock_guard hold(lock_);
    std::vector<std::string> bodies;
    for (const auto& entry : bodies_)
      bodies.push_back(entry.second);
    return bodies;
  }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  std::mutex lock_;
  std::condition_variable opened_, arrived_;
  std::map<std::string, bool> held_;
  std::map<std::string, int> utterances_;
  std::map<std::string, std::string> replies_;
  std::vector<std::pair<std::string, std::string>> bodies_;
};

class RoomTest : public testing::Test {
 protected:
  RoomTest() {
    set_report_sink([this](const Report& report) {
      std::lock_guard hold(reports_lock_);
      reports_.emplace_back(report.identifier);
    });
    room_.emplace(session_.handle(), RoomEvents{[this](const RoomText& text) { texts_.push_back(text.text); },
                                                [this](const MemberRecord& record) { left(record); }});
    room_->set_endpoint(service_.url());
    room_->set_token("token");
  }
  ~RoomTest() override {
    service_.open();
    room_.reset();
    set_report_sink({});
  }

  void left(const MemberRecord& record) {
    EXPECT_EQ(record.ended, record.stored + record.too_short + record.dropped);
    EXPECT_EQ(record.stored,
              record.delivered + record.failed + record.empty + record.unexplained + record.abandoned + record.waiting);
    EXPECT_EQ(record.waiting, 0U);
    departed_.push_back(record);
    texts_.push_back(record.client_id + " left");
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
  void pump_until_idle() {
    pump_until([this] { return room_->waiting() == 0; });
  }
  std::vector<std::string> reports() {
    std::lock_guard hold(reports_lock_);
    return reports_;
  }

  Library library_;
  Session session_{session_config(3)};
  Service service_;
  std::optional<Room> room_;
  std::array<std::uint8_t, 300> packet_{0x58};
  std::vector<std::string> texts_;  // and who left
  std::vector<MemberRecord> departed_;
  std::mutex reports_lock_;
  std::vector<std::string> reports_;
};

TEST_F(RoomTest, MembersSpeakAndAreHeard) {
  room_->add_member(7, "alice");
  room_->add_member(8, "bob");
  EXPECT_TRUE(session_.set_language("alice", ZEL_RTC_SPEECH_TO_TEXT_LANGUAGE_EN_US));
  say(7);
  say(8, 4);
  say(8, 5);
  EXPECT_EQ(room_->waiting(7), 1U);
  EXPECT_EQ(room_->waiting(), 2U);
  pump_until_idle();
  EXPECT_THAT(texts_, testing::UnorderedElementsAre("alice 1", "bob 1"));
  say(7, 1501);  // the 1500th ends an utterance, the rest is too short
  pump_until_idle();
  EXPECT_EQ(texts_.back(), "alice 2");

  const MemberRecord alice = room_->record(7);
  EXPECT_EQ(alice.client_id, "alice");
  EXPECT_EQ(alice.frames, 10U + 7 + 1501 + 7);
  EXPECT_EQ(alice.audio_frames, 1511U);
  EXPECT_EQ(alice.ended, 3U);
  EXPECT_EQ(alice.too_short, 1U);
  EXPECT_EQ(alice.posted, 2U);
  EXPECT_EQ(alice.delivered, 2U);
  EXPECT_EQ(room_->record(8).too_short, 1U);
  EXPECT_EQ(room_->records().size(), 2U);
  room_->close();
  EXPECT_EQ(departed_.size(), 2U);
  EXPECT_THAT(reports(), ElementsAre());
}

TEST_F(RoomTest, LastWordsOfALeavingMemberArriveWhileOthersGoOn) {
  service_.hold("alice");
  room_->add_member(1, "alice");
  room_->add_member(2, "bob");
  say(1);
  for (int i = 0; i < 10; ++i)
    audio(1);  // and leaves in mid-sentence
  room_->begin_leave(1);
  EXPECT_EQ(audio(1), FrameResult::kNoSuchMember);
  EXPECT_THROW(room_->add_member(1, "alice"), RoomError);
  say(2);
  pump_until([this] { return !texts_.empty(); });
  say(2);
  pump_until([this] { return texts_.size() == 2; });
  EXPECT_THAT(texts_, ElementsAre("bob 1", "bob 2"));
  EXPECT_TRUE(room_->has_member(1));
  service_.open();
  pump_until([this] { return !room_->has_member(1); });
  EXPECT_THAT(texts_, ElementsAre("bob 1", "bob 2", "alice 1", "alice 2", "alice left"));
  EXPECT_EQ(departed_.at(0).delivered, 2U);

  room_->add_member(1, "alice");  // comes back, to a recognizer that starts afresh
  say(1);
  room_->leave(1);
  EXPECT_EQ(texts_.back(), "alice left");
  EXPECT_EQ(departed_.back().delivered, 1U);
}

TEST_F(RoomTest, DeadlineOfALeaveHoldsUpNobodysAudio) {
  service_.hold("alice");
  room_->add_member(1, "alice");
  room_->add_member(2, "bob");
  say(1);
  say(1);
  room_->pump();
  service_.wait_for_utterances(1);
  room_->begin_leave(1, 0ms);
  std::thread others([this] {
    // The recognizer is being taken back: that waits for the service, and nobody else does.
    while (room_->has_member(1))
      std::this_thread::yield();
    for (int i = 0; i < 10; ++i)
      EXPECT_EQ(audio(2), FrameResult::kTaken);
    service_.open();
  });
  room_->pump();
  others.join();
  EXPECT_THAT(texts_, ElementsAre("alice left"));
  EXPECT_EQ(departed_.at(0).abandoned, 2U);
}

TEST_F(RoomTest, NothingIsLostWhenTheServiceCannotKeepUp) {
  service_.hold("alice");
  room_->add_member(1, "alice");
  for (int i = 0; i < 12 * 17; ++i) {
    const auto feed = [&] { return i % 17 < 10 ? audio(1, 250) : silence(1); };
    if (feed() != FrameResult::kFull) continue;
    EXPECT_EQ(room_->waiting(1), kMaxWaiting);
    EXPECT_FALSE(room_->can_accept(1));
    service_.open();
    pump_until([&] { return feed() == FrameResult::kTaken; });
  }
  EXPECT_GT(room_->record(1).refused_frames, 0U);
  room_->leave(1);
  EXPECT_EQ(departed_.at(0).delivered, 12U);
  EXPECT_EQ(departed_.at(0).dropped, 0U);
  EXPECT_THAT(reports(), ElementsAre());
}

TEST_F(RoomTest, UtterancesStayWithinTheBodyLimit) {
  room_->add_member(1, "alice");
  room_->add_member(2, "bob");
  // Alice never pauses. Bob's packets are smaller but for a breath now and then.
  constexpr std::size_t kFrames = 2010;
  for (std::size_t i = 0; i < kFrames; ++i) {
    for (const auto& [member, size] : {std::pair<std::uint32_t, std::size_t>{1, 256}, {2, i % 50 == 49 ? 20 : 200}}) {
      while (audio(member, size) == FrameResult::kFull)
        pump_until([&, id = member] { return room_->can_accept(id); });
    }
  }
  room_->close();
  std::size_t packets = 0;
  for (const std::string& body : service_.bodies()) {
    EXPECT_LE(body.size(), 81920U);
    packets += packets_in(body);
  }
  EXPECT_EQ(packets, 2 * kFrames) << "every frame arrives";
  for (const MemberRecord& record : departed_) {
    EXPECT_EQ(record.delivered, record.forced_pauses + 1);
    EXPECT_GE(record.forced_pauses, record.member_id == 1 ? 6U : 5U);
    EXPECT_EQ(record.dropped, 0U);
  }
  EXPECT_THAT(reports(), ElementsAre());
}

TEST_F(RoomTest, AnswersWithoutTextAreToldApart) {
  service_.reply("alice 1", kError);
  service_.reply("alice 2", success(""));
  service_.reply("alice 3", success(std::string(1300, 'x')));  // longer than a reply may be
  room_->add_member(1, "alice");
  for (int i = 0; i < 4; ++i)
    say(1);
  pump_until_idle();
  const MemberRecord record = room_->record(1);
  EXPECT_EQ(record.failed, 2U);
  EXPECT_EQ(record.empty, 1U);
  EXPECT_EQ(record.delivered, 1U);
  EXPECT_THAT(texts_, ElementsAre("alice 4"));
  EXPECT_THAT(reports(), testing::Contains("E2022110401"));
}

TEST_F(RoomTest, DisabledMemberIsNotHeard) {
  room_->add_member(1, "alice");
  for (int i = 0; i < 10; ++i)
    audio(1);
  EXPECT_TRUE(session_.set_enabled("alice", false));
  EXPECT_EQ(audio(1), FrameResult::kDisabled);
  room_->pump();
  EXPECT_EQ(room_->record(1).dropped, 1U) << "what was collected is gone";
  EXPECT_TRUE(session_.set_enabled("alice", true));
  say(1);
  room_->leave(1);
  EXPECT_THAT(texts_, ElementsAre("alice 1", "alice left"));
  EXPECT_EQ(departed_.at(0).disabled_frames, 1U);
}

TEST_F(RoomTest, RefusesWithoutHarm) {
  const auto code_of = [](auto operation) {
    try {
      operation();
    } catch (const RoomError& error) {
      return error.code();
    }
    ADD_FAILURE() << "no error";
    return RoomErrorCode::kClosed;
  };
  room_->add_member(1, "alice");
  EXPECT_EQ(code_of([&] { room_->add_member(1, "bob"); }), RoomErrorCode::kDuplicateMember);
  EXPECT_EQ(code_of([&] { room_->add_member(2, "alice"); }), RoomErrorCode::kDuplicateMember);
  EXPECT_EQ(code_of([&] { room_->add_member(2, ""); }), RoomErrorCode::kInvalidArgument);
  EXPECT_EQ(code_of([&] { room_->add_member(2, std::string(512, 'x')); }), RoomErrorCode::kInvalidArgument);
  EXPECT_EQ(code_of([&] { room_->add_member(2, std::string_view("a\0b", 3)); }), RoomErrorCode::kInvalidArgument);
  EXPECT_EQ(code_of([&] { room_->set_token(std::string(505, 'x')); }), RoomErrorCode::kInvalidArgument);
  EXPECT_EQ(code_of([&] { room_->set_endpoint(""); }), RoomErrorCode::kInvalidArgument);
  EXPECT_EQ(code_of([&] { room_->begin_leave(5); }), RoomErrorCode::kNoSuchMember);
  EXPECT_EQ(code_of([&] { room_->record(5); }), RoomErrorCode::kNoSuchMember);
  EXPECT_EQ(code_of([&] { Room second(session_.handle()); }), RoomErrorCode::kSessionInUse);
  EXPECT_EQ(code_of([&] { Room none(nullptr); }), RoomErrorCode::kSessionInUse);
  EXPECT_EQ(audio(5), FrameResult::kNoSuchMember);
  EXPECT_EQ(audio(1, 257), FrameResult::kTooLong);
  EXPECT_FALSE(room_->can_accept(5));
  room_->add_member(2, std::string(511, 'x'));
  room_->add_member(3, "bob");
  EXPECT_EQ(code_of([&] { room_->add_member(4, "carol"); }), RoomErrorCode::kNoFreeRecognizer);
  EXPECT_EQ(room_->member_count(), 3U);
  say(1);
  room_->close();
  EXPECT_THAT(texts_, testing::Contains("alice 1"));
  EXPECT_EQ(code_of([&] { room_->add_member(4, "carol"); }), RoomErrorCode::kClosed);
  EXPECT_EQ(code_of([&] { room_->set_token("x"); }), RoomErrorCode::kClosed);
  EXPECT_EQ(room_->pump(), 0U);
  EXPECT_THAT(reports(), ElementsAre());
  room_.emplace(session_.handle());  // the session is free again
}

TEST_F(RoomTest, ThreadsFeedWhileAnotherPumps) {
  constexpr int kUtterances = 20;
  for (std::uint32_t id = 1; id <= 3; ++id)
    room_->add_member(id, "m" + std::to_string(id));
  std::vector<std::thread> speakers;
  std::atomic<int> speaking{3};
  for (std::uint32_t id = 1; id <= 3; ++id) {
    speakers.emplace_back([this, id, &speaking] {
      for (int i = 0; i < kUtterances * 17; ++i) {
        const auto feed = [&] { return i % 17 < 10 ? audio(id) : silence(id); };
        while (feed() == FrameResult::kFull)
          std::this_thread::sleep_for(1ms);
      }
      --speaking;
    });
  }
  pump_until([&] { return speaking == 0; });
  for (auto& speaker : speakers)
    speaker.join();
  room_->close();
  ASSERT_EQ(departed_.size(), 3U);
  for (const MemberRecord& record : departed_)
    EXPECT_EQ(record.delivered, kUtterances) << record.client_id;
  EXPECT_THAT(reports(), ElementsAre());
}

}  // namespace
}  // namespace zel::host
