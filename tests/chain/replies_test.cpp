// What the service or the way to it does, and what the host then gets to see.
#include <gmock/gmock.h>

#include <algorithm>

#include "chain_rig.h"
#include "http_server.h"
#include "library.h"
#include "room.h"
#include "zel_rtc_speech_to_text_host.h"

namespace {

using namespace zel::host;
using kit::Identity;
using testing::StartsWith;

using Texts = std::vector<std::string>;

kit::Script reply(const std::string& body) {
  return {kit::ReadRequest(), kit::Send(kit::Reply("200 OK", body))};
}
kit::Script over_tls(Identity identity) {
  return {kit::Tls(identity), kit::ReadRequest(), kit::Send(success("hello"))};
}

struct Way {
  std::string endpoint = "http://127.0.0.1:{port}/stt";
  std::string client_id = "alice";
  std::string token = "token";
};

class Replies : public ChainTest {
 protected:
  // One utterance that meets the service. Result: what has reached it.
  std::vector<std::string> run(const kit::Script& service, const Texts& heard, const Texts& reports, Way way = {}) {
    SCOPED_TRACE(way.endpoint);
    const kit::HttpServer server(service);
    const Library library;
    const Session session(session_config(1));
    Texts texts;
    Room room(session.handle(), {[&](const RoomText& text) { texts.push_back(text.text); }, {}});
    if (const std::size_t at = way.endpoint.find("{port}"); at != std::string::npos)
      way.endpoint.replace(at, 6, std::to_string(server.port()));
    room.set_endpoint(way.endpoint);
    // Not through the room, which lets no overlong token pass.
    SttSession* record = session.handle();
    EXPECT_EQ(record->interface_table->SetAccessToken(record->body, way.token.c_str(), 1), 1U);
    room.add_member(1, way.client_id);
    for (int i = 0; i < 17; ++i)
      EXPECT_EQ(room.feed(1, bytes_of(i < 10 ? "\x58packet" : "")), FrameResult::kTaken);
    wait_until([&] { room.pump(); }, [&] { return room.waiting() == 0; });

    EXPECT_EQ(texts, heard);
    std::vector<testing::Matcher<std::string>> expected;
    std::transform(reports.begin(), reports.end(), std::back_inserter(expected), StartsWith<std::string>);
    EXPECT_THAT(take_reports(), testing::ElementsAreArray(expected));
    EXPECT_LE(server.requests().size(), 1U) << "nothing is tried twice";
    return server.requests();
  }
};

TEST_F(Replies, RepliesOfTheService) {
  const std::string x1023(1023, 'x'), padding(1231 - recognized("hello").size(), ' ');
  const std::string bad_request = "E2022110401:Failed to request SpeechToText because it is bad request.(ErrorCode:";
  const struct {
    std::string body;
    Texts heard, reports;
  } cases[] = {
      {recognized(R"(a\n\"b\u00e4)"), {R"(a\n\"b\u00e4)"}, {}},
      {recognized(x1023 + "yyyy"), {x1023}, {}},
      {recognized(""), {}, {}},
      {R"({"result":"success"})", {"invalid_string"}, {}},
      {recognized("hello") + padding, {"hello"}, {}},
      {recognized("hello") + padding + " ",
       {},
       {"E2022110402:Failed to request SpeechToText because it is unknown error."}},
      {"<html>no</html>", {}, {bad_request + "invalid_string, ErrorMessage:invalid_string)"}},
      {R"({"result":"error","error_code":"E1","error_message":"bad audio"})",
       {},
       {bad_request + "E1, ErrorMessage:bad audio)"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body);
    run(reply(c.body), c.heard, c.reports);
  }
}

TEST_F(Replies, WaysThatDoNotLeadToTheService) {
#ifdef _WIN32
  const std::string no_tls = "12157(unknown)";  // Wine's one number for handshakes that fail
#else
  const std::string no_tls = "12175(ERROR_WINHTTP_SECURE_FAILURE)";
#endif
  const std::string send = "E2021060621:[ZELWREQ] WinHttpSendRequest() failed. err=";
  const std::string crack = "E2021060610:[ZELWREQ] WinHttpCrackUrl() failed.";
  const std::string failed = "E2022110402:Failed to request SpeechToText because it is ";
  const std::string refused = "E2022110407:Failed to request for SpeechToText.";
  const std::string https = "https://localhost:{port}/stt";
  const std::string long_path = "http://127.0.0.1:{port}/" + std::string(980, 'p');
  run(over_tls(Identity::kSelfSigned), {}, {send + no_tls, failed + "SSL error."}, {https});
  run(over_tls(Identity::kOtherHost), {}, {send + no_tls, failed + "SSL error."}, {https});
  run({}, {}, {send + "12029(ERROR_WINHTTP_CANNOT_CONNECT)", failed + "connection error."}, {"http://127.0.0.1:1/stt"});
  run({}, {}, {crack, failed + "internal error."}, {"stt"});
  run({}, {}, {refused}, {long_path, std::string(60, 'c')});
  run({}, {}, {"E2022121326:", refused}, {.token = std::string(505, 't')});
}

TEST_F(Replies, RequestsSayWhoSpeaks) {
#ifdef _WIN32
  const std::string escaped = "a&b%20%c%C3%83%C2%A4%23";  // of code units
#else
  const std::string escaped = "a&b%20%c%C3%A4%23";
#endif
  run(over_tls(Identity::kTrusted), {"hello"}, {}, {"https://localhost:{port}/stt"});
  const Way by_key = {"http://127.0.0.1:{port}/stt?key=1", "a&b %c\xC3\xA4#", std::string(504, 't')};
  const std::string request = run(reply(recognized("hello")), {"hello"}, {}, by_key).at(0);
  const std::size_t head = request.find("\r\n\r\n") + 2;
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < head; at = request.find("\r\n", at) + 2)
    lines.push_back(request.substr(at, request.find("\r\n", at) - at));
  EXPECT_EQ(lines[0], "POST /stt?key=1?language=ja-JP&speaker=" + escaped + " HTTP/1.1");
  EXPECT_THAT(lines, testing::UnorderedElementsAre(
                         lines[0], "Content-Type: audio/ogg; codecs=opus", "Authorization: Bearer " + by_key.token,
                         "Accept: application/json", "User-Agent: ZEL Wreq/0.31", StartsWith("Host: 127.0.0.1:"),
                         "Content-Length: " + std::to_string(request.size() - head - 2), "Connection: Keep-Alive"));
}

}  // namespace
