// Real speech, from the member's packets to the bytes on the wire.
#include <gmock/gmock.h>

#include "chain_rig.h"
#include "http_server.h"
#include "library.h"
#include "ogg_pages.h"
#include "opus_speech.h"
#include "room.h"

namespace {

using namespace zel::host;

std::vector<std::string> lines_of(const std::string& head) {
  std::vector<std::string> lines;
  for (std::size_t at = 0, end = 0; (end = head.find("\r\n", at)) != std::string::npos; at = end + 2)
    lines.push_back(head.substr(at, end - at));
  return lines;
}

TEST_F(ChainTest, SpeechArrivesAsItWasFed) {
  const kit::HttpServer server({kit::ReadRequest(), kit::Send(kit::Reply("200 OK", recognized("go forward")))});
  const Library library;
  Session session(session_config(1));
  std::vector<std::string> texts;
  Room room(session.handle(), {[&](const RoomText& text) { texts.push_back(text.text); }, {}});
  const std::string host = "127.0.0.1:" + std::to_string(server.port());
  room.set_endpoint("http://" + host + "/v1/stt");
  room.set_token("secret");
  room.add_member(1, "alice");
  ASSERT_TRUE(session.set_language("alice", ZEL_RTC_SPEECH_TO_TEXT_LANGUAGE_EN_US));

  const std::vector<std::string> files = {"goforward.raw", "numbers.raw", "something.raw"};
  std::vector<std::vector<std::string>> utterances;
  for (const std::string& file : files) {
    const std::vector<std::string>& packets = utterances.emplace_back(encode_recording(file));
    for (const std::string& packet : packets) {
      const auto* bytes = reinterpret_cast<const std::uint8_t*>(packet.data());
      ASSERT_EQ(room.feed(1, {bytes, packet.size()}), FrameResult::kTaken);
    }
    for (int i = 0; i < 7; ++i)
      ASSERT_EQ(room.feed(1, {}), FrameResult::kTaken);
  }
  wait_until([&] { room.pump(); }, [&] { return room.waiting() == 0; });
  EXPECT_EQ(texts, std::vector<std::string>(files.size(), "go forward"));
  EXPECT_THAT(take_reports(), testing::IsEmpty());

  const std::vector<std::string> requests = server.requests();
  ASSERT_EQ(requests.size(), files.size());
  for (std::size_t i = 0; i < files.size(); ++i) {
    SCOPED_TRACE(files[i]);
    const std::size_t head = requests[i].find("\r\n\r\n") + 2;
    const std::string body = requests[i].substr(head + 2);
    std::vector<std::string> lines = lines_of(requests[i].substr(0, head));
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], "POST /v1/stt?language=en-US&speaker=alice HTTP/1.1");
    lines.erase(lines.begin());
    EXPECT_THAT(lines, testing::UnorderedElementsAre(
                           "Content-Type: audio/ogg; codecs=opus", "Authorization: Bearer secret",
                           "Accept: application/json", "User-Agent: ZEL Wreq/0.31", "Host: " + host,
                           "Content-Length: " + std::to_string(body.size()), "Connection: Keep-Alive"));
    ExpectOpusStream(body, utterances[i]);
    EXPECT_TRUE(decode_stream(body) == decode_packets(utterances[i])) << "heard otherwise than it was spoken";
  }
}

}  // namespace
