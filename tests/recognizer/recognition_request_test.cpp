#include "recognition_request.h"

#include <cstring>

#include "scripted_executor.h"
#include "scripted_host.h"
#include "wreq_request.h"

namespace {

constexpr SttRequestConfig kConfig = {0};
const std::string kRefused = "0 E2022110407:Failed to request for SpeechToText.";
const std::string kBadReply =
    "0 E2022110401:Failed to request SpeechToText because it is bad request.(ErrorCode:%s, ErrorMessage:%s)|";
constexpr std::uint8_t kBody[81921] = {'O', 'g', 'g'};
constexpr SttUtterance kUtterance = {kBody, 3, "user01", 1};

struct RequestRig {
  RequestRig()
      : area(zelSttRequest_CalculateWorkSize(&kConfig)),
        request(zelSttRequest_Create(&kConfig, area.data(), area.size())) {
    zelSttRequest_SetUrl(request, "http://host/path");
    zelSttRequest_SetAuthorization(request, "Bearer token");
  }
  ~RequestRig() { EXPECT_EQ(zelSttRequest_Destroy(request), 1u); }

  // Runs an exchange to its end.
  std::uint32_t Run(const ScriptedReply& reply, const SttUtterance& utterance = kUtterance) {
    executor.Reply(reply);
    EXPECT_EQ(zelSttRequest_Start(request, &utterance), 1u);
    EXPECT_EQ(zelSttRequest_GetState(request), STT_REQUEST_REQUESTING);
    host.WaitForWorkers();
    zelSttRequest_Poll(request);
    return zelSttRequest_GetState(request);
  }

  ScriptedHost host;
  ScriptedExecutor executor;
  WorkArea area;
  SttRequest* request;
};

TEST(RecognitionRequest, PostsTheUtterance) {
  RequestRig rig;
  EXPECT_EQ(rig.Run(Recognized("hello")), STT_REQUEST_SUCCEEDED);
  const Exchange first = rig.executor.exchanges().at(0);
  EXPECT_EQ(first.url, "http://host/path?language=en-US&speaker=user01");
  EXPECT_EQ(first.method, "POST");
  EXPECT_EQ(first.headers, (std::vector<std::pair<std::string, std::string>>{{"Content-Type", "audio/ogg; codecs=opus"},
                                                                             {"Authorization", "Bearer token"},
                                                                             {"Accept", "application/json"}}));
  EXPECT_EQ(first.body, "Ogg");
  EXPECT_EQ(first.timeout_sec, 20);
  EXPECT_FALSE(first.user_name || first.user_pass);

  // Each query replaces the one before; what base URL and speaker hold goes out as it is.
  const struct {
    const char* base;
    SttUtterance utterance;
    const char* url;
    Reports reports;
  } cases[] = {
      {"http://h", {kBody, 81920, "a&b c", 0}, "http://h?language=ja-JP&speaker=a&b c", {}},
      {nullptr, {kBody, 1, "", 2}, "?language=zh-CN&speaker=", {}},
      {"http://h/?own=1", {kBody, 1, "s", 3}, "http://h/?own=1?language=&speaker=s", {"0 E2022111008 -2"}},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(zelSttRequest_Reset(rig.request), 1u);
    EXPECT_EQ(zelSttRequest_SetUrl(rig.request, test.base), 1u);
    EXPECT_EQ(rig.Run(Recognized("x"), test.utterance), STT_REQUEST_SUCCEEDED);
    EXPECT_EQ(rig.executor.exchanges().back().url, test.url);
    EXPECT_EQ(rig.executor.exchanges().back().body.size(), test.utterance.body_size);
    EXPECT_EQ(rig.host.TakeReports(), test.reports);
  }
  zelSttRequest_Reset(rig.request);
  zelSttRequest_SetAuthorization(rig.request, nullptr);
  EXPECT_EQ(rig.Run(Recognized("x")), STT_REQUEST_SUCCEEDED);
  EXPECT_EQ(rig.executor.exchanges().back().headers[1].second, "");
}

TEST(RecognitionRequest, FailsAtOnceWhenTheUtteranceCannotBePosted) {
  RequestRig rig;
  const std::string because = "0 E2022121", limit = ":Failed to request becase ZelWreqAsyncConfig::";
  const std::size_t query = std::strlen("?language=en-US&speaker=user01");
  const struct {
    std::size_t base;   // length of the base URL
    std::size_t token;  // of the authorization value
    std::uint32_t body;
    Reports reports;  // none when accepted
  } cases[] = {
      {1023 - query, 9, 3, {}},
      {1024 - query, 9, 3, {kRefused}},
      {5000, 9, 3, {kRefused}},
      {10, 511, 3, {}},
      {10, 512, 3, {because + "326" + limit + "max_header_value_length is not enough.", kRefused}},
      {10, 9, 81920, {}},
      {10, 9, 81921, {because + "329" + limit + "max_request_body_length is not enough.", kRefused}},
      {10, 9, 0, {because + "500:Failed to request becase request->data_len is invalid.|0", kRefused}},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(std::to_string(test.base) + " " + std::to_string(test.token) + " " + std::to_string(test.body));
    const std::string url(test.base, 'u'), token(test.token, 't');
    zelSttRequest_SetUrl(rig.request, url.c_str());
    zelSttRequest_SetAuthorization(rig.request, token.c_str());
    const SttUtterance utterance = {kBody, test.body, "user01", 1};
    const bool accepted = test.reports.empty();
    rig.executor.Reply(Recognized("x"));
    EXPECT_EQ(zelSttRequest_Start(rig.request, &utterance), accepted ? 1u : 0u);
    EXPECT_EQ(rig.request->state, accepted ? STT_REQUEST_REQUESTING : STT_REQUEST_FAILED);
    EXPECT_EQ(rig.host.TakeReports(), test.reports);
    rig.host.WaitForWorkers();
    EXPECT_EQ(zelSttRequest_Reset(rig.request), 1u);
    EXPECT_EQ(rig.request->state, STT_REQUEST_IDLE);
  }
}

TEST(RecognitionRequest, NamesTheFailure) {
  RequestRig rig;
  const auto expect = [&](const ScriptedReply& reply, const std::string& word) {
    EXPECT_EQ(rig.Run(reply), STT_REQUEST_FAILED);
    EXPECT_EQ(rig.host.TakeReports(),
              Reports{"0 E2022110402:Failed to request SpeechToText because it is %s error.|" + word});
    EXPECT_EQ(zelSttRequest_IsSucceeded(rig.request), 0u);
    zelSttRequest_Reset(rig.request);
  };
  const char* const by_kind[] = {"unknown", "time out", "DNS", "connection", "SSL", "unknown", "internal", "internal"};
  for (std::uint32_t kind = 0; kind < std::size(by_kind); ++kind)
    expect({"", 1, 0, kind}, by_kind[kind]);
  expect({"", 1, 400, 5}, "bad request");
  expect({"", 1, 401, 5}, "unauthorized");
  expect({"", 1, 500, 5}, "internal server");
  expect({"", 1, 404, 5}, "unknown");
  expect({"", 3}, "unknown");
}

TEST(RecognitionRequest, ReadsTheReply) {
  const std::string none = "invalid_string|invalid_string", many(1100, 'x');
  const struct {
    std::string body;
    std::string text;    // of a success
    std::string report;  // arguments of the report of a failure
  } cases[] = {
      {R"({"result":"success","version":"1.0","speaker":"user01","text":"hello"})", "hello", ""},
      {R"({"text":"a\"\u00e4\n","result":"success","more":[{}]})", R"(a\"\u00e4\n)", ""},
      {R"({"result":"success"})", "invalid_string", ""},
      {R"({"result":"success","text":""})", "", ""},
      {R"({"result":"success","text":")" + many + "\"}", many.substr(0, 1023), ""},
      {R"({"result":"error","error_code":"E1","error_message":"bad audio"})", "", "E1|bad audio"},
      {R"({"result":"error","error_code":400})", "", "400|invalid_string"},
      {R"({"result":"successful"})", "", none},
      {R"({"reply":{"result":"success"}})", "", none},
      {R"({"result":"x","error_code":")" + many.substr(0, 50) + R"(","error_message":")" + many.substr(0, 200) + "\"}",
       "", many.substr(0, 31) + "|" + many.substr(0, 127)},
      {"<html>", "", none},
      {R"({"result":"success","text":"cut)", "", none},
  };
  for (const std::uint32_t status : {200u, 500u}) {
    RequestRig rig;
    for (const auto& test : cases) {
      SCOPED_TRACE(test.body);
      testing::internal::CaptureStdout();
      const bool success = test.report.empty();
      EXPECT_EQ(rig.Run({test.body, 0, status}), success ? STT_REQUEST_SUCCEEDED : STT_REQUEST_FAILED);
      std::fflush(stdout);
      testing::internal::GetCapturedStdout();
      EXPECT_EQ(rig.host.TakeReports(), success ? Reports{} : Reports{kBadReply + test.report});
      EXPECT_EQ(zelSttRequest_IsSucceeded(rig.request), success ? 1u : 0u);
      char text[1200] = "untouched";
      const auto length = static_cast<std::int32_t>(test.text.size());
      EXPECT_EQ(zelSttRequest_CopyText(rig.request, text, length), -1);
      EXPECT_STREQ(text, "untouched");
      EXPECT_EQ(zelSttRequest_CopyText(rig.request, text, length + 1), success ? length : -1);
      EXPECT_EQ(text, success ? test.text : "untouched");
      zelSttRequest_Reset(rig.request);
      EXPECT_EQ(zelSttRequest_CopyText(rig.request, text, 1200), -1);
    }
    EXPECT_STREQ(rig.request->reply_speaker, "invalid_string");
    rig.Run({R"({"result":"success","version":"1234567890123456","speaker":"me"})"});
    EXPECT_STREQ(rig.request->reply_version, "123456789012345");
    EXPECT_STREQ(rig.request->reply_speaker, "me");
    EXPECT_STREQ(rig.request->reply_error_code, "invalid_string") << "kept until it is set again";
  }
}

}  // namespace
