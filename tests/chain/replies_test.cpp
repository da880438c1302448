// What the service or the way to it does, and what the host then gets to see.
#include <gmock/gmock.h>

#include <optional>

#include "chain_rig.h"
#include "http_server.h"
#include "library.h"
#include "room.h"
#include "zel_rtc_speech_to_text_host.h"

namespace {

using namespace zel::host;
using kit::Identity;

kit::Script reply(const std::string& body, const std::string& status = "200 OK") {
  return {kit::ReadRequest(), kit::Send(kit::Reply(status, body))};
}
kit::Script over_tls(Identity identity) {
  return {kit::Tls(identity), kit::ReadRequest(), kit::Send(kit::Reply("200 OK", recognized("hello")))};
}
std::string padded_reply(std::size_t size) {
  const std::string start = recognized("hello");
  return start + std::string(size - start.size(), ' ');
}

struct Case {
  const char* name;
  kit::Script server;
  std::optional<std::string> text;   // delivered
  std::vector<std::string> reports;  // beginnings
  std::string endpoint = "http://127.0.0.1:{port}/stt";
  std::string client_id = "alice";
  std::string token = "token";
  std::string request_has = {};
};

std::string exchange_failed(const std::string& word) {
  return "E2022110402:Failed to request SpeechToText because it is " + word + " error.";
}
std::string bad_reply(const std::string& code, const std::string& message) {
  return "E2022110401:Failed to request SpeechToText because it is bad request.(ErrorCode:" + code +
         ", ErrorMessage:" + message + ")";
}
std::string send_failed(const std::string& error) {
  return "E2021060621:[ZELWREQ] WinHttpSendRequest() failed. err=" + error;
}

class Replies : public ChainTest {
 protected:
  void run(const Case& c) {
    SCOPED_TRACE(c.name);
    const kit::HttpServer server(c.server);
    const Library library;
    const Session session(session_config(1));
    std::vector<std::string> texts;
    Room room(session.handle(), {[&](const RoomText& text) { texts.push_back(text.text); }, {}});
    std::string endpoint = c.endpoint;
    if (const std::size_t at = endpoint.find("{port}"); at != std::string::npos)
      endpoint.replace(at, 6, std::to_string(server.port()));
    room.set_endpoint(endpoint);
    // Not through the room, which lets no overlong token pass.
    SttSession* record = session.handle();
    EXPECT_EQ(record->interface_table->SetAccessToken(record->body, c.token.c_str(), 1), 1U);
    room.add_member(1, c.client_id);
    const std::uint8_t packet[40] = {0x58};
    for (int i = 0; i < 17; ++i)
      ASSERT_EQ(room.feed(1, i < 10 ? std::span<const std::uint8_t>(packet) : std::span<const std::uint8_t>()),
                FrameResult::kTaken);
    wait_until([&] { room.pump(); }, [&] { return room.waiting() == 0; });

    EXPECT_EQ(texts, c.text ? std::vector<std::string>{*c.text} : std::vector<std::string>{});
    const std::vector<std::string> reports = take_reports();
    EXPECT_EQ(reports.size(), c.reports.size()) << testing::PrintToString(reports);
    for (std::size_t i = 0; i < std::min(reports.size(), c.reports.size()); ++i)
      EXPECT_EQ(reports[i].substr(0, c.reports[i].size()), c.reports[i]);
    const std::vector<std::string> requests = server.requests();
    if (!c.request_has.empty())
      EXPECT_THAT(requests, testing::ElementsAre(testing::HasSubstr(c.request_has)));
    else
      EXPECT_LE(requests.size(), 1U) << "nothing is tried twice";
  }
};

TEST_F(Replies, RepliesOfTheService) {
  const std::string x1023(1023, 'x');
  const Case cases[] = {
      {"success", reply(recognized("hello")), "hello", {}},
      {"status 500, success", reply(recognized("hello"), "500 Internal Server Error"), "hello", {}},
      {"escapes stay", reply(recognized(R"(a\n\"b\u00e4)")), R"(a\n\"b\u00e4)", {}},
      {"text longer than is kept", reply(recognized(x1023 + "yyyy")), x1023, {}},
      {"empty text", reply(recognized("")), {}, {}},
      {"no text", reply(R"({"result":"success"})"), "invalid_string", {}},
      {"longest body", reply(padded_reply(1231)), "hello", {}},
      {"body one byte longer", reply(padded_reply(1232)), {}, {exchange_failed("unknown")}},
      {"text of 2000 bytes", reply(recognized(std::string(2000, 'x'))), {}, {exchange_failed("unknown")}},
      {"not JSON", reply("<html>no</html>"), {}, {bad_reply("invalid_string", "invalid_string")}},
      {"empty body", reply(""), {}, {bad_reply("invalid_string", "invalid_string")}},
      {"no result", reply(R"({"text":"x"})"), {}, {bad_reply("invalid_string", "invalid_string")}},
      {"nested result",
       reply(R"({"a":{"result":"success","text":"x"}})"),
       {},
       {bad_reply("invalid_string", "invalid_string")}},
      {"error",
       reply(R"({"result":"error","error_code":"E1","error_message":"bad audio"})"),
       {},
       {bad_reply("E1", "bad audio")}},
  };
  for (const Case& c : cases)
    run(c);
}

TEST_F(Replies, WaysToTheService) {
  const std::string https = "https://localhost:{port}/stt";
#ifdef _WIN32
  const std::string no_tls = send_failed("12157(unknown)");  // Wine's one number for handshakes that fail
  const std::string escaped = "POST /stt?language=ja-JP&speaker=a&b%20%c%C3%83%C2%A4%23 HTTP/1.1\r\n";  // of code units
#else
  const std::string no_tls = send_failed("12175(ERROR_WINHTTP_SECURE_FAILURE)");
  const std::string escaped = "POST /stt?language=ja-JP&speaker=a&b%20%c%C3%A4%23 HTTP/1.1\r\n";
#endif
  const std::string long_path = "http://127.0.0.1:{port}/" + std::string(980, 'p');
  const std::string refused = "E2022110407:Failed to request for SpeechToText.";
  const Case cases[] = {
      {"trusted", over_tls(Identity::kTrusted), "hello", {}, https},
      {"self-signed", over_tls(Identity::kSelfSigned), {}, {no_tls, exchange_failed("SSL")}, https},
      {"another host's", over_tls(Identity::kOtherHost), {}, {no_tls, exchange_failed("SSL")}, https},
      {"expired", over_tls(Identity::kExpired), {}, {no_tls, exchange_failed("SSL")}, https},
      {"refused",
       {},
       {},
       {send_failed("12029(ERROR_WINHTTP_CANNOT_CONNECT)"), exchange_failed("connection")},
       "http://127.0.0.1:1/stt"},
      // The label is longer than any name server is asked for.
      {"unknown host",
       {},
       {},
       {send_failed("12007(ERROR_WINHTTP_NAME_NOT_RESOLVED)"), exchange_failed("DNS")},
       "http://" + std::string(64, 'x') + ".invalid/stt"},
      {"no endpoint", {}, {}, {"E2021060610:[ZELWREQ] WinHttpCrackUrl() failed.", exchange_failed("internal")}, "stt"},
      {"own query",
       reply(recognized("x")),
       "x",
       {},
       "http://127.0.0.1:{port}/stt?key=1",
       "bob",
       "t",
       "POST /stt?key=1?language=ja-JP&speaker=bob HTTP/1.1\r\n"},
      {"client id of any bytes",
       reply(recognized("x")),
       "x",
       {},
       "http://127.0.0.1:{port}/stt",
       "a&b %c\xC3\xA4#",
       "t",
       escaped},
      {"URL without room for the query", {}, {}, {refused}, long_path, std::string(60, 'c')},
      {"longest token",
       reply(recognized("x")),
       "x",
       {},
       "http://127.0.0.1:{port}/stt",
       "bob",
       std::string(504, 't'),
       "\r\nAuthorization: Bearer " + std::string(504, 't') + "\r\n"},
      {"token one byte longer",
       {},
       {},
       {"E2022121326:", refused},
       "http://127.0.0.1:{port}/stt",
       "bob",
       std::string(505, 't')},
  };
  for (const Case& c : cases)
    run(c);
}

}  // namespace
