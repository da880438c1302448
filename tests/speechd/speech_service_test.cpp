#include "speech_service.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <openssl/pem.h>

#include <cstdio>
#include <future>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>

#include "ogg_opus_writer.h"
#include "scripted_engine.h"
#include "temporary_folder.h"
#include "test_certificates.h"

namespace zel::speechd {
namespace {

using nlohmann::json;
using speechd_test::Script;
using speechd_test::Tone;
using speechd_test::WriteOggOpus;

constexpr const char* kPath = "/v1/recognize?language=en-US&speaker=alice";
constexpr const char* kType = "audio/ogg; codecs=opus";

struct Answer {
  int status = 0;  // 0: none
  json body;
};

Answer Read(const httplib::Result& result) {
  if (!result) return {};
  return {result->status, json::parse(result->body, nullptr, false)};
}

httplib::Client ClientOf(const SpeechService& service) {
  httplib::Client client(service.url());
  client.set_read_timeout(30);
  return client;
}

Answer Post(const SpeechService& service, const std::string& body, const std::string& path = kPath,
            const httplib::Headers& headers = {}) {
  httplib::Client client = ClientOf(service);
  client.set_url_encode(false);
  return Read(client.Post(path, headers, body, kType));
}

const std::string& Second() {
  static const std::string stream = WriteOggOpus(Tone(440, 1.0));
  return stream;
}

TEST(SpeechService, AnswersAnUtterance) {
  Script script;
  SpeechService service({.engines = 1}, script.Factory());
  ASSERT_GT(service.port(), 0);
  const struct {
    const char* query;
    const char* speaker;
  } cases[] = {
      {"language=en-US&speaker=alice", "alice"},      {"speaker=user%2001%26&language=en-US", "user 01&"},
      {"language=en-US&speaker=a/b:c@d", "a/b:c@d"},  {"language=en-US&speaker=%E6%97%A5", "\xE6\x97\xA5"},
      {"language=en-US&speaker=%FF", "\xEF\xBF\xBD"}, {"language=en-US", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.query);
    const Answer answer = Post(service, Second(), std::string("/v1/recognize?") + c.query);
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body["result"], "success");
    EXPECT_EQ(answer.body["version"], "1.0");
    EXPECT_EQ(answer.body["speaker"], c.speaker);
    EXPECT_EQ(answer.body["text"], "16000 samples");
  }
}

TEST(SpeechService, RefusesWithAReasonAndAFittingStatus) {
  Script script;
  SpeechService service({.token = "secret", .engines = 1, .max_body = 20000, .max_duration = std::chrono::seconds(5)},
                        script.Factory());
  const std::string good = "Bearer secret";
  const struct {
    const char* name;
    std::string path;
    std::string authorization;
    std::string body;
    int status;
    const char* code;
  } cases[] = {
      {"no token", kPath, "", Second(), 401, "unauthorized"},
      {"wrong token", kPath, "Bearer secre", Second(), 401, "unauthorized"},
      {"token with more behind it", kPath, "Bearer secret2", Second(), 401, "unauthorized"},
      {"other scheme", kPath, "Basic secret", Second(), 401, "unauthorized"},
      {"wrong token with a large body", kPath, "Bearer x", std::string(20001, 'x'), 401, "unauthorized"},
      {"no language", "/v1/recognize?speaker=a", good, Second(), 400, "unsupported_language"},
      {"other language", "/v1/recognize?language=ja-JP", good, Second(), 400, "unsupported_language"},
      {"empty body", kPath, good, "", 400, "empty_audio"},
      {"headers alone", kPath, good, WriteOggOpus({}), 400, "empty_audio"},
      {"not Ogg", kPath, good, "hello", 415, "not_ogg_opus"},
      {"one byte too large", kPath, good, std::string(20001, 'x'), 413, "body_too_large"},
      {"much too large", kPath, good, std::string(3 << 20, 'x'), 413, "body_too_large"},
      {"largest", kPath, good, std::string(20000, 'x'), 415, "not_ogg_opus"},
      {"too long", kPath, good, WriteOggOpus(Tone(440, 5.1)), 413, "audio_too_long"},
      {"other path", "/v2/recognize", good, Second(), 404, "not_found"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const httplib::Headers headers =
        c.authorization.empty() ? httplib::Headers{} : httplib::Headers{{"Authorization", c.authorization}};
    const Answer answer = Post(service, c.body, c.path, headers);
    EXPECT_EQ(answer.status, c.status);
    EXPECT_EQ(answer.body["result"], "error");
    EXPECT_EQ(answer.body["error_code"], c.code);
    EXPECT_FALSE(answer.body["error_message"].get<std::string>().empty());
    EXPECT_LE(answer.body.dump().size(), 1231u);
  }
  EXPECT_EQ(Post(service, Second(), kPath, {{"Authorization", good}}).status, 200);
}

TEST(SpeechService, LimitsBodiesWhateverTheirFraming) {
  Script script;
  SpeechService service({.engines = 1, .max_body = 20000}, script.Factory());
  httplib::Client client = ClientOf(service);
  const std::string large(50000, 'x');
  const auto chunks = [&](std::size_t, httplib::DataSink& sink) {
    sink.write(large.data(), large.size());
    sink.done();
    return true;
  };
  EXPECT_EQ(Read(client.Post(kPath, chunks, kType)).body["error_code"], "body_too_large");
  client.set_compress(true);
  EXPECT_EQ(Read(client.Post(kPath, large, "text/plain")).body["error_code"], "body_too_large");
  client.set_compress(false);
  const httplib::MultipartFormDataItems form = {{"file", Second(), "a.opus", kType}};
  EXPECT_EQ(Read(client.Post(kPath, form)).status, 415);
  EXPECT_EQ(Read(client.Get(kPath)).status, 404);
}

TEST(SpeechService, RefusesOverloadAtOnceAndFinishesWhatIsInFlight) {
  Script script(/*open=*/false);
  SpeechService service({.engines = 2, .max_waiting = 3}, script.Factory());
  std::vector<std::future<Answer>> answers;
  const auto post = [&] { answers.push_back(std::async(std::launch::async, [&] { return Post(service, Second()); })); };
  post();
  post();
  script.AwaitBusy(2);
  for (int i = 0; i < 3; ++i)
    post();
  httplib::Client client = ClientOf(service);
  const auto waiting = [&] { return Read(client.Get("/healthz")).body.value("waiting", -1); };
  while (waiting() < 3)
    std::this_thread::yield();

  const Answer refused = Post(service, Second());
  EXPECT_EQ(refused.status, 503);
  EXPECT_EQ(refused.body["error_code"], "overload");

  std::future<void> stopped = std::async(std::launch::async, [&] { service.stop(); });
  script.Open();
  stopped.get();
  for (std::future<Answer>& answer : answers)
    EXPECT_EQ(answer.get().status, 200);
  EXPECT_EQ(Post(service, Second()).status, 0) << "answered after the end";
}

TEST(SpeechService, ReportsWhatTheEngineCannotDo) {
  Script script;
  script.fail = true;
  std::promise<std::string> logged;
  SpeechService service({.engines = 1, .log = [&](const std::string& line) { logged.set_value(line); }},
                        script.Factory());
  const Answer failed = Post(service, Second());
  EXPECT_EQ(failed.status, 500);
  EXPECT_EQ(failed.body["error_code"], "internal");
  EXPECT_EQ(failed.body["error_message"].get<std::string>().find("scripted"), std::string::npos) << "inner workings";
  EXPECT_NE(logged.get_future().get().find("scripted failure"), std::string::npos);

  SpeechService late({.engines = 1, .answer_within = std::chrono::milliseconds(0)}, script.Factory());
  EXPECT_EQ(Post(late, Second()).body["error_code"], "overload");
}

TEST(SpeechService, SpeaksHttps) {
  const speechd_test::TemporaryFolder folder;
  const kit::ContextPointer context = kit::Authority::Get().MakeContext(kit::Identity::kTrusted);
  // Certificate and key in one file.
  const std::string pem = folder.File("identity.pem");
  std::FILE* file = std::fopen(pem.c_str(), "w");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(PEM_write_X509(file, SSL_CTX_get0_certificate(context.get())), 1);
  EXPECT_EQ(PEM_write_PrivateKey(file, SSL_CTX_get0_privatekey(context.get()), nullptr, nullptr, 0, nullptr, nullptr),
            1);
  std::fclose(file);

  Script script;
  SpeechService service({.tls_certificate = pem, .tls_key = pem, .engines = 1}, script.Factory());
  EXPECT_EQ(service.url().substr(0, 8), "https://");
  httplib::SSLClient client("127.0.0.1", service.port());
  client.set_ca_cert_path(kit::Authority::Get().file().c_str());
  client.enable_server_certificate_verification(true);
  EXPECT_EQ(Read(client.Post(kPath, Second(), kType)).body["text"], "16000 samples");
}

TEST(SpeechService, KnowsLoopback) {
  for (const char* host : {"127.0.0.1", "127.9.9.9", "::1", "localhost"})
    EXPECT_TRUE(is_loopback(host)) << host;
  for (const char* host : {"0.0.0.0", "::", "10.0.0.1", "128.0.0.1", "::2", "localhost.example", "", "127.0.0.1 "})
    EXPECT_FALSE(is_loopback(host)) << host;
}

TEST(SpeechService, SaysWhyItCannotBeSetUp) {
  Script script;
  SpeechService service({.engines = 1}, script.Factory());
  EXPECT_THROW(SpeechService({.port = service.port(), .engines = 1}, script.Factory()), ServiceError);
  EXPECT_THROW(SpeechService({.tls_certificate = "missing.pem", .tls_key = "missing.pem"}, script.Factory()),
               ServiceError);
  EXPECT_THROW(SpeechService({.tls_certificate = "missing.pem"}, script.Factory()), ServiceError);
  EXPECT_THROW(SpeechService({.host = "256.1.1.1", .engines = 1}, script.Factory()), ServiceError);
}

}  // namespace
}  // namespace zel::speechd
