// The service in the test's own process, with scripted engines, and as the program that a user runs.
#include "speech_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <openssl/pem.h>
#include <signal.h>

#include <cstdio>
#include <future>
#include <thread>

#include "scripted_engine.h"
#include "temporary_folder.h"
#include "test_audio.h"
#include "test_certificates.h"

namespace zel::speechd {
namespace {

using namespace speechd_test;
using testing::HasSubstr;

constexpr const char* kPath = "/v1/recognize?language=en-US&speaker=alice";
constexpr const char* kType = "audio/ogg; codecs=opus";

struct Answer {
  int status = 0;  // 0: none
  std::string body;
};

Answer Post(const std::string& url, const std::string& body, const std::string& path = kPath,
            const std::string& authorization = {}) {
  httplib::Client client(url);
  client.set_read_timeout(100);
  client.set_url_encode(false);
  if (!authorization.empty()) client.set_default_headers({{"Authorization", authorization}});
  const httplib::Result result = client.Post(path, body, kType);
  return result ? Answer{result->status, result->body} : Answer{};
}

std::string Health(const std::string& url) {
  return httplib::Client(url).Get("/healthz")->body;
}

const std::string& Second() {
  static const std::string stream = WriteOggOpus(Tone(440, 1.0));
  return stream;
}

// A reply that refuses, with an explanation.
testing::Matcher<std::string> Refuses(const std::string& code) {
  return testing::StartsWith(R"({"result":"error","version":"1.0","error_code":")" + code + R"(","error_message":")");
}

TEST(SpeechService, AnswersAnUtterance) {
  Script script;
  SpeechService service({.engines = 1}, script.Factory());
  const std::pair<std::string, std::string> cases[] = {
      {"speaker=user%2001%26&language=en-US", "user 01&"},
      {"language=en-US&speaker=a/b:c@d%E6%97%A5", "a/b:c@d\xE6\x97\xA5"},
      {"language=en-US&speaker=%FF", "\xEF\xBF\xBD"},
      {"language=en-US", ""},
  };
  for (const auto& [query, speaker] : cases) {
    const Answer answer = Post(service.url(), Second(), "/v1/recognize?" + query);
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body,
              R"({"result":"success","version":"1.0","speaker":")" + speaker + R"(","text":"16000 samples"})");
  }
}

TEST(SpeechService, RefusesWithAReasonAndAFittingStatus) {
  Script script;
  SpeechService service({.token = "secret", .engines = 1, .max_body = 20000, .max_duration = std::chrono::seconds(5)},
                        script.Factory());
  const std::string good = "Bearer secret", large(20001, 'x');
  const struct {
    std::string path, authorization, body;
    int status;
    const char* code;
  } cases[] = {
      {kPath, "", Second(), 401, "unauthorized"},
      {kPath, "Bearer secre", Second(), 401, "unauthorized"},
      {kPath, "Bearer secret2", Second(), 401, "unauthorized"},
      {kPath, "Basic secret", Second(), 401, "unauthorized"},
      {kPath, "Bearer x", large, 401, "unauthorized"},
      {"/v1/recognize?speaker=a", good, Second(), 400, "unsupported_language"},
      {"/v1/recognize?language=ja-JP", good, Second(), 400, "unsupported_language"},
      {kPath, good, "", 400, "empty_audio"},
      {kPath, good, WriteOggOpus({}), 400, "empty_audio"},
      {kPath, good, "hello", 415, "not_ogg_opus"},
      {kPath, good, Second().substr(0, 47), 415, "not_ogg_opus"},  // the identification page alone
      {kPath, good, large, 413, "body_too_large"},
      {kPath, good, std::string(16 << 20, 'x'), 413, "body_too_large"},
      {kPath, good, large.substr(1), 415, "not_ogg_opus"},  // the largest body
      {kPath, good, WriteOggOpus(Tone(440, 5.1)), 413, "audio_too_long"},
      {"/v2/recognize", good, Second(), 404, "not_found"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path + " " + c.authorization + " " + c.body.substr(0, 10));
    const Answer answer = Post(service.url(), c.body, c.path, c.authorization);
    EXPECT_EQ(answer.status, c.status);
    EXPECT_THAT(answer.body, Refuses(c.code));
  }
  EXPECT_EQ(Post(service.url(), Second(), kPath, good).status, 200);
}

TEST(SpeechService, LimitsBodiesWhateverTheirFraming) {
  Script script;
  SpeechService service({.engines = 1, .max_body = 20000}, script.Factory());
  httplib::Client client(service.url());
  const std::string large(50000, 'x');
  const auto chunks = [&](std::size_t, httplib::DataSink& sink) {
    sink.write(large.data(), large.size());
    sink.done();
    return true;
  };
  EXPECT_THAT(client.Post(kPath, chunks, kType)->body, Refuses("body_too_large"));
  client.set_compress(true);
  EXPECT_THAT(client.Post(kPath, large, "text/plain")->body, Refuses("body_too_large"));
  client.set_compress(false);
  const httplib::MultipartFormDataItems form = {{"file", Second(), "a.opus", kType}};
  EXPECT_EQ(client.Post(kPath, form)->status, 415);
  EXPECT_EQ(client.Get(kPath)->status, 404);
}

TEST(SpeechService, RefusesOverloadAtOnceAndFinishesWhatIsInFlight) {
  Script script(/*open=*/false);
  SpeechService service({.engines = 2, .max_waiting = 3}, script.Factory());
  std::vector<std::future<Answer>> answers;
  const auto post = [&] {
    answers.push_back(std::async(std::launch::async, [&] { return Post(service.url(), Second()); }));
  };
  post();
  post();
  script.AwaitBusy(2);
  for (int i = 0; i < 3; ++i)
    post();
  while (Health(service.url()).find("\"waiting\":3,") == std::string::npos)
    std::this_thread::yield();
  const Answer refused = Post(service.url(), Second());
  EXPECT_EQ(refused.status, 503);
  EXPECT_THAT(refused.body, Refuses("overload"));

  std::future<void> stopped = std::async(std::launch::async, [&] { service.stop(); });
  script.Open();
  stopped.get();
  for (std::future<Answer>& answer : answers)
    EXPECT_EQ(answer.get().status, 200);
  EXPECT_EQ(Post(service.url(), Second()).status, 0) << "answered after the end";
}

TEST(SpeechService, ReportsWhatTheEngineCannotDo) {
  Script script;
  script.fail = true;
  std::promise<std::string> logged;
  SpeechService service({.engines = 1, .log = [&](const std::string& line) { logged.set_value(line); }},
                        script.Factory());
  const Answer failed = Post(service.url(), Second());
  EXPECT_EQ(failed.status, 500);
  EXPECT_THAT(failed.body, testing::AllOf(Refuses("internal"), testing::Not(HasSubstr("scripted"))));
  EXPECT_THAT(logged.get_future().get(), HasSubstr("scripted failure"));

  SpeechService late({.engines = 1, .answer_within = std::chrono::milliseconds(0)}, script.Factory());
  EXPECT_THAT(Post(late.url(), Second()).body, Refuses("overload"));
}

TEST(SpeechService, SpeaksHttps) {
  const TemporaryFolder folder;
  const kit::ContextPointer context = kit::Authority::Get().MakeContext(kit::Identity::kTrusted);
  const std::string pem = folder.File("certificate-and-key.pem");
  std::FILE* file = std::fopen(pem.c_str(), "w");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(PEM_write_X509(file, SSL_CTX_get0_certificate(context.get())), 1);
  const EVP_PKEY* key = SSL_CTX_get0_privatekey(context.get());
  EXPECT_EQ(PEM_write_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr), 1);
  std::fclose(file);

  Script script;
  SpeechService service({.tls_certificate = pem, .tls_key = pem, .engines = 1}, script.Factory());
  httplib::Client client(service.url());
  client.set_ca_cert_path(kit::Authority::Get().file().c_str());
  EXPECT_THAT(client.Post(kPath, Second(), kType)->body, HasSubstr("16000 samples"));
}

TEST(SpeechService, KnowsLoopback) {
  for (const char* host : {"127.0.0.1", "127.9.9.9", "::1", "localhost"})
    EXPECT_TRUE(is_loopback(host)) << host;
  for (const char* host : {"0.0.0.0", "::", "126.0.0.1", "128.0.0.1", "::2", "localhost.example", "", "127.0.0.1 "})
    EXPECT_FALSE(is_loopback(host)) << host;
}

TEST(SpeechService, SaysWhyItCannotBeSetUp) {
  Script script;
  SpeechService service({.engines = 1}, script.Factory());
  for (const ServiceConfig& unusable : {ServiceConfig{.port = service.port(), .engines = 1},
                                        {.tls_certificate = "missing.pem", .tls_key = "missing.pem"},
                                        {.tls_certificate = "missing.pem"},
                                        {.host = "256.1.1.1", .engines = 1}})
    EXPECT_THROW(SpeechService(unusable, script.Factory()), ServiceError) << unusable.host;
}

TEST(SpeechdProgram, ServesUntilItIsToldToStop) {
  const TemporaryFolder folder;
  const std::string token = folder.File("token", "secret\n");
  ChildProcess program({ZEL_SPEECHD_PROGRAM, "--listen", "127.0.0.1:0", "--token-file", token, "--threads", "1"});
  const std::string line = program.ReadLine(), prefix = "listening on ";
  ASSERT_TRUE(line.starts_with(prefix + "http://127.0.0.1:")) << program.Finish().err;

  const std::string url = line.substr(prefix.size());
  EXPECT_THAT(Health(url), HasSubstr("\"status\":\"ok\""));
  const std::string body = WriteOggOpus(LoadRecording(kGoForward));
  EXPECT_EQ(Post(url, body).status, 401);
  EXPECT_EQ(Post(url, body, kPath, "Bearer secret").body,
            R"({"result":"success","version":"1.0","speaker":"alice","text":"go forward ten meters"})");

  kill(program.pid(), SIGTERM);
  const Output output = program.Finish();
  EXPECT_EQ(output.status, 0);
  EXPECT_EQ(output.err, "");
}

TEST(SpeechdProgram, SaysWhatIsWrongWithItsArguments) {
  const struct {
    std::vector<std::string> arguments;
    int status;
    const char* says;
  } cases[] = {
      {{"--help"}, 0, "--listen"},
      {{"--listen", "[::]:0"}, 2, "--token"},
      {{"--listen", "127.0.0.1"}, 2, "HOST:PORT"},
      {{"--listen", "127.0.0.1:70000"}, 2, "port"},
      {{"--listen", "127.0.0.1:http"}, 2, "port"},
      {{"--token-file", "no-such-file"}, 2, "no-such-file"},
      {{"--tls-cert", "no-such-file"}, 2, "no-such-file"},
      {{"--threads", "0"}, 2, "--threads"},
      {{"--listen", "256.1.1.1:0", "--token", "x", "--threads", "1"}, 1, "256.1.1.1"},
      {{"--model", "no-such-folder"}, 1, "no-such-folder"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.arguments));
    std::vector<std::string> command = c.arguments;
    command.insert(command.begin(), ZEL_SPEECHD_PROGRAM);
    const Output output = RunProgram(command);
    EXPECT_EQ(output.status, c.status);
    EXPECT_THAT(output.out + output.err, HasSubstr(c.says));
  }
}

}  // namespace
}  // namespace zel::speechd
