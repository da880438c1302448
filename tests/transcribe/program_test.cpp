// zel-transcribe as a user runs it, against a speech service on loopback that answers as the test says.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>

#include "child_process.h"
#include "recordings.h"

namespace {

using speechd_test::ChildProcess;
using speechd_test::Output;
using speechd_test::ReadFile;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const std::string kSpeech = speechd_test::RecordingPath(speechd_test::kGoForward);  // one utterance
const std::string kToken = "a-token-to-be-kept-secret";
constexpr const char* kSuccess = R"({"result":"success","version":"1","speaker":"x","text":"go forward"})";

// Keeps the requests and answers all of them alike, when the gate is open.
class Service {
 public:
  Service() : port_(server_.bind_to_any_port("127.0.0.1")) {
    server_.Post("/v1", [this](const httplib::Request& request, httplib::Response& response) {
      std::unique_lock hold(mutex_);
      requests_.push_back(request);
      changed_.notify_all();
      changed_.wait(hold, [this] { return open_; });
      response.status = status_;
      response.set_content(body_, "application/json");
    });
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running())
      std::this_thread::yield();
  }
  ~Service() {
    set_open(true);
    server_.stop();
    thread_.join();
  }

  void answer(std::string body, int status = 200) {
    std::lock_guard hold(mutex_);
    body_ = std::move(body);
    status_ = status;
  }
  void set_open(bool open) {
    std::lock_guard hold(mutex_);
    open_ = open;
    changed_.notify_all();
  }
  void wait_for_requests(std::size_t count) {
    std::unique_lock hold(mutex_);
    changed_.wait(hold, [&] { return requests_.size() >= count; });
  }
  std::vector<httplib::Request> requests() {
    std::lock_guard hold(mutex_);
    return requests_;
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/v1"; }

 private:
  httplib::Server server_;
  int port_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = true;
  std::string body_ = kSuccess;
  int status_ = 200;
  std::vector<httplib::Request> requests_;
};

std::vector<std::string> command(const Service& service, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {ZEL_TRANSCRIBE, "--endpoint", service.url(), "--token", kToken});
  return arguments;
}

Output run(const Service& service, std::vector<std::string> arguments) {
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
  Service service;
  service.answer(R"({"result":"success","text":"\"caf\u00e9\"\u001b[2J"})");
  const Output output =
      run(service, {"alice=" + kSpeech, "bob=" + kSpeech, "alice=" + kSpeech, "--language", "bob=zh-CN"});
  EXPECT_EQ(output.status, 0) << output.err;
  const std::string text = "\"caf\xC3\xA9\"\xEF\xBF\xBD[2J";
  const auto lines = sorted_lines(output.out);
  ASSERT_EQ(lines.size(), 3U) << output.out;
  EXPECT_THAT(lines[0], testing::MatchesRegex("\\[00:00\\..-00:02\\..\\] alice: .*"));
  EXPECT_THAT(lines[1], testing::MatchesRegex("\\[00:00\\..-00:02\\..\\] bob: .*"));
  EXPECT_THAT(lines[2], testing::MatchesRegex("\\[00:04\\..-00:06\\..\\] alice: .*"));
  for (const std::string& line : lines)
    EXPECT_THAT(line, testing::EndsWith(": " + text));
  EXPECT_THAT(output.err, HasSubstr("alice: 2 utterances posted, 2 answered, 0 failed; 6.6 s of audio"));
  EXPECT_THAT(output.err, HasSubstr("total: 3 utterances posted, 3 answered, 0 failed"));

  const auto requests = service.requests();
  ASSERT_EQ(requests.size(), 3U);
  for (const httplib::Request& request : requests) {
    EXPECT_EQ(request.get_param_value("language"), request.get_param_value("speaker") == "bob" ? "zh-CN" : "en-US");
    EXPECT_EQ(request.get_header_value("Authorization"), "Bearer " + kToken);
    EXPECT_EQ(request.body.substr(0, 4), "OggS");
    EXPECT_GT(request.body.size(), 45U * 53);
    EXPECT_LT(request.body.size(), 75U * 56);
  }
}

TEST(Transcribe, JsonLinesCarryEverything) {
  Service service;
  service.answer(R"({"result":"success","text":"\ud83d\ude00\n\ud83d"})", 500);  // the status is not what counts
  const Output output = run(service, {"--format", "jsonl", "--realtime", "m\xC3\xBC=" + kSpeech});
  EXPECT_EQ(output.status, 0) << output.err;
  const auto line = nlohmann::json::parse(output.out);
  EXPECT_EQ(line.at("member"), "m\xC3\xBC");
  EXPECT_EQ(line.at("member_id"), 1);
  EXPECT_EQ(line.at("text"), "\xF0\x9F\x98\x80\n\xEF\xBF\xBD");
  EXPECT_EQ(line.at("language"), "en-US");
  EXPECT_GT(line.at("timestamp_us"), 2'000'000);  // the recording was played at its own pace
  EXPECT_NEAR(line.at("begin_s").get<double>(), 0.26, 0.2);
  EXPECT_NEAR(line.at("end_s").get<double>(), 2.5, 0.3);
}

TEST(Transcribe, UnusableArgumentsAreNamedBeforeAnythingIsSent) {
  const speechd_test::TemporaryFolder folder;
  const std::string text = folder.File("text.wav", "this is no audio at all");
  const std::pair<std::string, std::string> cases[] = {
      {"a=" + folder.File("missing.wav"), "missing.wav: No such file"},
      {"a=" + folder.File(""), "is a directory"},
      {"a=" + text, text + ": "},
      {"a=" + folder.File("empty.raw", ""), "holds no audio"},
      {"nothing", "MEMBER=FILE is needed"},
  };
  Service service;
  for (const auto& [argument, reason] : cases) {
    const Output output = run(service, {"good=" + kSpeech, argument});
    EXPECT_EQ(output.status, 2) << argument;
    EXPECT_THAT(output.err, HasSubstr(reason));
    EXPECT_THAT(output.out, IsEmpty());
  }
  EXPECT_THAT(service.requests(), IsEmpty());
}

TEST(Transcribe, FailuresAreCountedAndExplained) {
  Service service;
  service.answer(R"({"result":"error","error_code":"E\u001b7","error_message":"bad audio"})", 500);
  const Output refused = run(service, {"alice=" + kSpeech, "alice=" + kSpeech, "--stats"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.out, IsEmpty());
  EXPECT_THAT(refused.err, HasSubstr("2 utterances posted, 0 answered, 2 failed"));
  EXPECT_THAT(refused.err, HasSubstr("2 x E2022110401:"));
  EXPECT_THAT(refused.err, HasSubstr("bad audio"));
  EXPECT_THAT(
      refused.err,
      HasSubstr("ended=2 forced_pauses=0 dropped=0 too_short=0 posted=2 delivered=0 empty=0 failed=2 waiting=0"));
  EXPECT_THAT(refused.err, Not(HasSubstr("\x1b")));

  const Output unreachable = speechd_test::RunProgram({ZEL_TRANSCRIBE, "--endpoint", "http://127.0.0.1:1/", "--token",
                                                       kToken, "a=" + kSpeech, "-v", "--stats", "--format", "jsonl"});
  EXPECT_EQ(unreachable.status, 1);
  EXPECT_THAT(unreachable.err, HasSubstr("because it is connection error"));
  const auto stats = nlohmann::json::parse(unreachable.out).at("stats").at(0);
  EXPECT_EQ(stats.at("member"), "a");
  EXPECT_EQ(stats.at("failed"), 1);
  EXPECT_EQ(stats.at("E2022110402"), 1);
  EXPECT_THAT(refused.err + unreachable.err, Not(HasSubstr(kToken)));
}

TEST(Transcribe, ATokenThatTheServiceEchoesIsNotPrinted) {
  const std::string messages[] = {"Bearer " + kToken + "!", "Bearer \\u0061" + kToken.substr(1) + "!",
                                  std::string(115, '.') + kToken};  // the last one is cut off at 127 bytes
  Service service;
  for (const std::string& message : messages) {
    service.answer(R"({"result":"error","error_code":"no","error_message":")" + message + "\"}", 401);
    const Output output = run(service, {"alice=" + kSpeech, "-v"});
    EXPECT_EQ(output.status, 1);
    EXPECT_THAT(output.err, HasSubstr("<token>"));
    EXPECT_THAT(output.err, Not(HasSubstr(kToken.substr(1, 8)))) << message;
  }
}

TEST(Transcribe, ASilentServiceHoldsTheAudioBackAndNothingIsLost) {
  constexpr std::size_t kUtterances = 14;
  Service service;
  service.set_open(false);
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
    service.set_open(true);
  }
  const Output output = child.Finish();
  EXPECT_LT(held_back_at, audio.size());
  EXPECT_EQ(output.status, 0) << output.err;
  EXPECT_EQ(sorted_lines(output.out).size(), kUtterances);
  EXPECT_EQ(service.requests().size(), kUtterances);
}

TEST(Transcribe, InterruptedItStillHearsTheLastWords) {
  Service service;
  ChildProcess child(command(service, {"me=-"}));
  const std::string speech = ReadFile(kSpeech);
  const std::string audio = speech + std::string(32'000, '\0') + speech.substr(0, 2 * 640 * 55);
  ASSERT_EQ(write(child.input(), audio.data(), audio.size()), static_cast<ssize_t>(audio.size()));
  service.wait_for_requests(1);
  for (int unread = 1; unread > 0 && usleep(1000) == 0;)
    ASSERT_EQ(ioctl(child.input(), FIONREAD, &unread), 0);
  kill(child.pid(), SIGINT);
  const Output output = child.Finish();
  EXPECT_EQ(output.status, 0) << output.err;
  EXPECT_EQ(sorted_lines(output.out).size(), 2U);
  EXPECT_THAT(output.err, HasSubstr("interrupted"));
}

TEST(Transcribe, NobodyReadingTheOutputEndsItQuietly) {
  Service service;
  ChildProcess child(command(service, {"me=" + kSpeech}), false);
  const Output output = child.Finish();
  EXPECT_EQ(output.status, 1);
  EXPECT_THAT(output.err, IsEmpty());
}

}  // namespace
