// A full room: members who speak at once, come and go and change their language, and a service of varying speed.
#include <gmock/gmock.h>
#include <httplib.h>

#include <map>
#include <random>

#include "chain_rig.h"
#include "library.h"
#include "ogg_pages.h"
#include "opus_speech.h"
#include "room.h"

namespace {

using namespace zel::host;

constexpr unsigned kSeed = 20'26;
constexpr std::uint32_t kMembers = 16;
constexpr int kVisits = 2;  // of each member
constexpr int kUtterances = 10;
const char* const kLanguages[] = {"ja-JP", "en-US", "zh-CN"};

// Answers with the speaker, the language, and a hash of the body.
std::string answer_to(const std::string& speaker, const std::string& language, const std::string& body) {
  return speaker + " " + language + " " + std::to_string(std::hash<std::string>()(body));
}

class HashingService {
 public:
  HashingService() {
    server_.new_task_queue = [] { return new httplib::ThreadPool(kMembers); };
    server_.Post("/stt", [this](const httplib::Request& request, httplib::Response& response) {
      const std::string speaker = request.get_param_value("speaker");
      unsigned delay = 0;
      {
        std::lock_guard hold(lock_);
        bodies_[speaker].push_back(request.body);
        delay = static_cast<unsigned>(random_() % 4);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(delay));  // the service's work
      const std::string answer = answer_to(speaker, request.get_param_value("language"), request.body);
      response.set_content(recognized(answer), "application/json");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running())
      std::this_thread::yield();
  }
  ~HashingService() {
    server_.stop();
    thread_.join();
  }

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/stt"; }
  std::map<std::string, std::vector<std::string>> bodies() {
    std::lock_guard hold(lock_);
    return bodies_;
  }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  std::mutex lock_;
  std::mt19937 random_{kSeed};
  std::map<std::string, std::vector<std::string>> bodies_;  // by speaker, as they arrived
};

struct Utterance {
  std::string language;
  std::vector<std::string> packets;
};

class Crowd : public ChainTest {
 protected:
  Crowd() {
    room_.set_endpoint(service_.url());
    room_.set_token("token");
  }

  // All visits of one member, on a thread of its own.
  void visit(std::uint32_t id) {
    std::mt19937 random(kSeed + id);
    for (int round = 0; round < kVisits; ++round) {
      const std::string client = std::to_string(id) + (round == 0 ? ".first" : ".again");
      std::vector<Utterance> said;
      std::size_t language = 0;
      {
        std::lock_guard hold(roster_);
        room_.add_member(id, client);
      }
      for (int i = 0; i < kUtterances; ++i) {
        if (room_.waiting(id) == 0) {  // nothing is on its way in the old language
          language = random() % 3;
          std::lock_guard hold(roster_);
          EXPECT_TRUE(session_.set_language(client, static_cast<std::uint32_t>(language)));
        }
        const std::size_t length = 5 + random() % 20;
        const auto first = speech_.begin() + static_cast<std::ptrdiff_t>(random() % (speech_.size() - length));
        said.push_back({kLanguages[language], {first, first + static_cast<std::ptrdiff_t>(length)}});
        for (const std::string& packet : said.back().packets)
          feed(id, packet);
        for (int silence = 0; silence < 7; ++silence)
          feed(id, {});
      }
      room_.begin_leave(id);
      wait_until([] {}, [&] { return !room_.has_member(id); });
      std::lock_guard hold(roster_);
      said_[client] = std::move(said);
    }
    --visitors_;
  }
  void feed(std::uint32_t id, const std::string& packet) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(packet.data());
    FrameResult result{};
    wait_until([] {}, [&] { return (result = room_.feed(id, {bytes, packet.size()})) != FrameResult::kFull; });
    ASSERT_EQ(result, FrameResult::kTaken);
  }

  const std::vector<std::string> speech_ = encode_recording("goforward.raw");
  HashingService service_;
  const Library library_;
  Session session_{session_config(kMembers)};
  std::map<std::string, std::vector<RoomText>> texts_;  // the pumping thread's
  Room room_{session_.handle(), {[this](const RoomText& text) { texts_[text.client_id].push_back(text); }, {}}};
  std::mutex roster_;  // keeps add_member and set_language apart, as the room asks; guards said_
  std::map<std::string, std::vector<Utterance>> said_;
  std::atomic<std::uint32_t> visitors_{kMembers};
};

TEST_F(Crowd, EveryUtteranceIsAnsweredOnceInOrderAndForItself) {
  std::vector<std::thread> members;
  for (std::uint32_t id = 1; id <= kMembers; ++id)
    members.emplace_back([this, id] { visit(id); });
  wait_until([&] { room_.pump(); }, [&] { return visitors_ == 0; });
  for (std::thread& member : members)
    member.join();
  room_.close();
  EXPECT_THAT(take_reports(), testing::IsEmpty());

  const auto bodies = service_.bodies();
  EXPECT_EQ(bodies.size(), kMembers * kVisits);
  ASSERT_EQ(said_.size(), kMembers * kVisits);
  for (const auto& [client, utterances] : said_) {
    const std::vector<RoomText>& texts = texts_[client];
    ASSERT_EQ(texts.size(), utterances.size()) << client;
    ASSERT_EQ(bodies.at(client).size(), utterances.size()) << client;
    for (std::size_t i = 0; i < utterances.size(); ++i) {
      SCOPED_TRACE(client + ", utterance " + std::to_string(i) + ", seed " + std::to_string(kSeed));
      const std::string& body = bodies.at(client)[i];
      ExpectOpusStream(body, utterances[i].packets);
      EXPECT_EQ(decode_stream(body).size(), 1920 * utterances[i].packets.size());
      EXPECT_EQ(texts[i].text, answer_to(client, utterances[i].language, body));
      EXPECT_EQ(std::to_string(texts[i].member_id), client.substr(0, client.find('.')));
      EXPECT_GT(texts[i].timestamp_us, i > 0 ? texts[i - 1].timestamp_us : 0);
    }
  }
}

}  // namespace
