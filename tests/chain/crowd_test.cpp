// A full room: members who speak at once, come and go and change their language.
#include <gmock/gmock.h>

#include <atomic>
#include <map>
#include <random>

#include "chain_rig.h"
#include "http_server.h"
#include "library.h"
#include "ogg_pages.h"
#include "room.h"

namespace {

using namespace zel::host;

constexpr unsigned kSeed = 20'26;
constexpr std::uint32_t kMembers = 16;
constexpr int kVisits = 2;  // of each member
constexpr int kUtterances = 10;
const char* const kLanguages[] = {"ja-JP", "en-US", "zh-CN"};

struct Utterance {
  std::string request_line;
  std::vector<std::string> packets;
};

class Crowd : public ChainTest {
 protected:
  // All visits of one member, on a thread of its own.
  void visit(std::uint32_t id) {
    std::mt19937 random(kSeed + id);
    for (int round = 0; round < kVisits; ++round) {
      const std::string client = std::to_string(id) + (round == 0 ? ".first" : ".again");
      std::vector<Utterance> said;
      std::uint32_t language = 0;
      {
        std::lock_guard hold(roster_);
        room_.add_member(id, client);
      }
      for (int i = 0; i < kUtterances; ++i) {
        if (room_.waiting(id) == 0) {  // nothing is on its way in the old language
          language = static_cast<std::uint32_t>(random() % 3);
          std::lock_guard hold(roster_);
          EXPECT_TRUE(session_.set_language(client, language));
        }
        Utterance& utterance = said.emplace_back();
        utterance.request_line =
            std::string("POST /stt?language=") + kLanguages[language] + "&speaker=" + client + " HTTP/1.1\r\n";
        for (std::size_t left = 5 + random() % 20; left > 0; --left)
          utterance.packets.emplace_back(1 + random() % 256, static_cast<char>(random()));
        for (const std::string& packet : utterance.packets)
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
    FrameResult result{};
    const auto fed = [&] { return (result = room_.feed(id, bytes_of(packet))) != FrameResult::kFull; };
    wait_until([] {}, fed);
    ASSERT_EQ(result, FrameResult::kTaken);
  }
  static std::vector<std::string> requests_of(const std::string& client, std::vector<std::string> requests) {
    std::erase_if(requests,
                  [&](const auto& each) { return each.find("&speaker=" + client + " ") > each.find("\r\n"); });
    return requests;
  }

  const kit::HttpServer service_{kit::Script{kit::ReadRequest(), kit::Send(success("{hash}"))}};
  const Library library_;
  Session session_{session_config(kMembers)};
  std::map<std::string, std::vector<RoomText>> texts_;  // the pumping thread's
  Room room_{session_.handle(), {[this](const RoomText& text) { texts_[text.client_id].push_back(text); }, {}}};
  std::mutex roster_;  // keeps add_member and set_language apart, as the room asks; guards said_
  std::map<std::string, std::vector<Utterance>> said_;
  std::atomic<std::uint32_t> visitors_{kMembers};
};

TEST_F(Crowd, EveryUtteranceIsAnsweredOnceInOrderAndForItself) {
  room_.set_endpoint("http://127.0.0.1:" + std::to_string(service_.port()) + "/stt");
  std::vector<std::thread> members;
  for (std::uint32_t id = 1; id <= kMembers; ++id)
    members.emplace_back([this, id] { visit(id); });
  wait_until([&] { room_.pump(); }, [&] { return visitors_ == 0; });
  for (std::thread& member : members)
    member.join();
  room_.close();
  EXPECT_THAT(take_reports(), testing::IsEmpty());

  const std::vector<std::string> all_requests = service_.requests();
  EXPECT_EQ(all_requests.size(), kMembers * kVisits * kUtterances);
  ASSERT_EQ(said_.size(), kMembers * kVisits);
  for (const auto& [client, utterances] : said_) {
    const std::vector<RoomText>& texts = texts_[client];
    const std::vector<std::string> requests = requests_of(client, all_requests);
    ASSERT_EQ(texts.size(), utterances.size()) << client;
    ASSERT_EQ(requests.size(), utterances.size()) << client;
    for (std::size_t i = 0; i < utterances.size(); ++i) {
      SCOPED_TRACE(client + ", utterance " + std::to_string(i) + ", seed " + std::to_string(kSeed));
      EXPECT_THAT(requests[i], testing::StartsWith(utterances[i].request_line));
      ExpectOpusStream(requests[i].substr(requests[i].find("\r\n\r\n") + 4), utterances[i].packets);
      EXPECT_EQ(texts[i].text, kit::RequestHash(requests[i]));
      EXPECT_EQ(std::to_string(texts[i].member_id), client.substr(0, client.find('.')));
      EXPECT_GT(texts[i].timestamp_us, i > 0 ? texts[i - 1].timestamp_us : 0);
    }
  }
}

}  // namespace
