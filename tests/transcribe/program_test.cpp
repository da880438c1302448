// zel-transcribe as a user runs it, against a speech service on loopback that answers as the test says.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <thread>

#include "http_server.h"
#include "test_audio.h"

namespace {

using kit::HttpServer;
using speechd_test::ChildProcess;
using speechd_test::Output;
using speechd_test::ReadFile;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

const std::string kSpeech = speechd_test::RecordingPath(speechd_test::kGoForward);  // one utterance
const std::string kToken = "a-token-to-be-kept-secret";

kit::Script answer(const std::string& json, const std::string& status = "200 OK") {
  return {kit::ReadRequest(), kit::Send(kit::Reply(status, json))};
}
const kit::Script kHeard = answer(R"({"result":"success","version":"1","speaker":"x","text":"go forward"})");

std::vector<std::string> command(const std::string& port, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(),
                   {ZEL_TRANSCRIBE, "--endpoint", "http://127.0.0.1:" + port + "/v1", "--token", kToken});
  return arguments;
}
std::vector<std::string> command(const HttpServer& service, std::vector<std::string> arguments) {
  return command(std::to_string(service.port()), std::move(arguments));
}
Output run(const HttpServer& service, std::vector<std::string> arguments) {
  return speechd_test::RunProgram(command(service, std::move(arguments)));
}

std::vector<std::string> sorted_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);)
    lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
}

TEST(Transcribe, MembersTalkIntoOneRoom) {
  const HttpServer service(answer(R"({"result":"success","text":"\"caf\u00e9\"\u001b[2J"})"));
  const Output output =
      run(service, {"alice=" + kSpeech, "bob=" + kSpeech, "alice=" + kSpeech, "--language", "bob=zh-CN"});
  EXPECT_EQ(output.status, 0) << output.err;
  const std::string text = ": \"caf\xC3\xA9\"\xEF\xBF\xBD\\[2J";
  EXPECT_THAT(sorted_lines(output.out), testing::ElementsAre(MatchesRegex("\\[00:00\\..-00:02\\..\\] alice" + text),
                                                             MatchesRegex("\\[00:00\\..-00:02\\..\\] bob" + text),
                                                             MatchesRegex("\\[00:04\\..-00:06\\..\\] alice" + text)));
  EXPECT_THAT(output.err, HasSubstr("alice: 2 utterances posted, 2 answered, 0 failed; 6.6 s of audio"));
  EXPECT_THAT(output.err, HasSubstr("total: 3 utterances posted, 3 answered, 0 failed"));

  const std::vector<std::string> requests = service.requests();
  EXPECT_EQ(requests.size(), 3U);
  for (const std::string& request : requests) {
    EXPECT_THAT(request, testing::ContainsRegex("language=(zh-CN&speaker=bob|en-US&speaker=alice) HTTP"));
    EXPECT_THAT(request, HasSubstr("Authorization: Bearer " + kToken + "\r\n"));
    const std::string body = request.substr(request.find("\r\n\r\n") + 4);
    EXPECT_THAT(body, testing::StartsWith("OggS"));
    EXPECT_GT(body.size(), 45U * 53);
    EXPECT_LT(body.size(), 75U * 56);
  }
}

TEST(Transcribe, JsonLinesCarryEverything) {
  // The status is not what counts. The recording is played at its own pace, which is more than two seconds.
  const HttpServer service(answer(R"({"result":"success","text":"\ud83d\ude00\n\ud83d"})", "500 No"));
  const Output output = run(service, {"--format", "jsonl", "--realtime", "m\xC3\xBC=" + kSpeech});
  EXPECT_EQ(output.status, 0) << output.err;
  EXPECT_THAT(output.out,
              MatchesRegex("\\{\"member\":\"m\xC3\xBC\",\"member_id\":1,\"text\":\"\xF0\x9F\x98\x80\\\\n\xEF\xBF\xBD\","
                           "\"timestamp_us\":([2-9]|[1-9][0-9])[0-9]{6},\"begin_s\":0\\.[0-4][0-9]?,"
                           "\"end_s\":2\\.[2-7][0-9]?,\"language\":\"en-US\"\\}\n"));
}

TEST(Transcribe, UnusableArgumentsAreNamedBeforeAnythingIsSent) {
  const speechd_test::TemporaryFolder folder;
  const std::string text = folder.File("text.wav", "this is no audio at all");
  const std::pair<std::string, std::string> cases[] = {
      {"a=" + folder.File("missing.wav"), "missing.wav: No such file"},
      {"a=" + folder.File(""), "is a directory"},
      {"a=" + text, text + ": "},
      {"a=" + folder.File("empty.raw", ""), "holds no audio"},
      {"nothing", "'nothing': MEMBER=FILE is needed"},
  };
  const HttpServer service(kHeard);
  for (const auto& [argument, reason] : cases) {
    const Output output = run(service, {"good=" + kSpeech, argument});
    EXPECT_EQ(output.status, 2) << argument;
    EXPECT_THAT(output.err, HasSubstr(reason));
    EXPECT_THAT(output.out, IsEmpty());
  }
  EXPECT_THAT(service.requests(), IsEmpty());
}

TEST(Transcribe, FailuresAreCountedAndExplained) {
  const HttpServer service(answer(R"({"result":"error","error_code":"E\u001b7","error_message":"bad audio"})"));
  const Output refused = run(service, {"alice=" + kSpeech, "alice=" + kSpeech, "--stats"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.out, IsEmpty());
  for (const char* line :
       {"2 utterances posted, 0 answered, 2 failed", "2 x E2022110401:", "bad audio",
        "ended=2 forced_pauses=0 dropped=0 too_short=0 posted=2 delivered=0 empty=0 failed=2 waiting=0"})
    EXPECT_THAT(refused.err, HasSubstr(line));
  EXPECT_THAT(refused.err, Not(HasSubstr("\x1b")));

  const Output unreachable =
      speechd_test::RunProgram(command("1", {"a=" + kSpeech, "-v", "--stats", "--format", "jsonl"}));
  EXPECT_EQ(unreachable.status, 1);
  EXPECT_THAT(unreachable.err, HasSubstr("because it is connection error"));
  EXPECT_THAT(unreachable.out, MatchesRegex("\\{\"stats\":\\[\\{\"member\":\"a\",\"member_id\":1,\"frames\":.*,"
                                            "\"failed\":1,.*,\"E2022110402\":1\\}\\]\\}\n"));
  EXPECT_THAT(refused.err + unreachable.err, Not(HasSubstr(kToken)));
}

TEST(Transcribe, ATokenThatTheServiceEchoesIsNotPrinted) {
  const std::string messages[] = {"Bearer " + kToken + "!", "Bearer \\u0061" + kToken.substr(1) + "!",
                                  std::string(115, '.') + kToken};  // the last one is cut off at 127 bytes
  for (const std::string& message : messages) {
    const HttpServer service(answer(R"({"result":"error","error_code":"no","error_message":")" + message + "\"}"));
    const Output output = run(service, {"alice=" + kSpeech, "-v"});
    EXPECT_EQ(output.status, 1);
    EXPECT_THAT(output.err, HasSubstr("<token>"));
    EXPECT_THAT(output.err, Not(HasSubstr(kToken.substr(1, 8)))) << message;
  }
}

TEST(Transcribe, ASilentServiceHoldsTheAudioBackAndNothingIsLost) {
  constexpr std::size_t kUtterances = 14;
  HttpServer service({kit::ReadRequest(), kit::Stall(), kHeard[1]});
  ChildProcess child(command(service, {"me=-"}));
  std::string audio;
  for (std::size_t i = 0; i < kUtterances; ++i)
    audio += ReadFile(kSpeech) + std::string(32'000, '\0');
  fcntl(child.input(), F_SETFL, O_NONBLOCK);
  std::size_t held_back_at = audio.size();
  for (std::size_t sent = 0; sent < audio.size();) {
    const ssize_t put = write(child.input(), audio.data() + sent, audio.size() - sent);
    if (put > 0) {
      sent += static_cast<std::size_t>(put);
      continue;
    }
    ASSERT_EQ(errno, EAGAIN);
    pollfd ready{child.input(), POLLOUT, 0};
    if (poll(&ready, 1, 1000) > 0 || service.requests().empty()) continue;
    held_back_at = std::min(held_back_at, sent);
    service.Release();
  }
  const Output output = child.Finish();
  EXPECT_LT(held_back_at, audio.size());
  EXPECT_EQ(output.status, 0) << output.err;
  EXPECT_EQ(sorted_lines(output.out).size(), kUtterances);
  EXPECT_EQ(service.requests().size(), kUtterances);
}

TEST(Transcribe, InterruptedItStillHearsTheLastWords) {
  const HttpServer service(kHeard);
  ChildProcess child(command(service, {"me=-"}));
  const std::string speech = ReadFile(kSpeech);
  const std::string audio = speech + std::string(32'000, '\0') + speech.substr(0, 2 * 640 * 55);
  ASSERT_EQ(write(child.input(), audio.data(), audio.size()), static_cast<ssize_t>(audio.size()));
  while (service.requests().empty())
    std::this_thread::yield();
  for (int unread = 1; unread > 0 && usleep(1000) == 0;)
    ASSERT_EQ(ioctl(child.input(), FIONREAD, &unread), 0);
  kill(child.pid(), SIGINT);
  const Output output = child.Finish();
  EXPECT_EQ(output.status, 0) << output.err;
  EXPECT_EQ(sorted_lines(output.out).size(), 2U);
  EXPECT_THAT(output.err, HasSubstr("interrupted"));
}

TEST(Transcribe, NobodyReadingTheOutputEndsItQuietly) {
  const HttpServer service(kHeard);
  ChildProcess child(command(service, {"me=" + kSpeech}), false);
  const Output output = child.Finish();
  EXPECT_EQ(output.status, 1);
  EXPECT_THAT(output.err, IsEmpty());
}

}  // namespace
