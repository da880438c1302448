#include "recognition_request.h"

#include <cstring>

#include "recognizer_rig.h"

namespace {

constexpr std::uint8_t kBody[81921] = {'O', 'g', 'g'};
constexpr SttUtterance kUtterance = {kBody, 3, "user01", 1};

struct RequestRig : RecognizerRig {
  // Runs an exchange to its end: the recognized text, or the report when there is none.
  std::string Run(const ScriptedReply& reply, const SttUtterance& utterance = kUtterance) {
    zelSttRequest_Reset(request);
    executor.Reply(reply);
    EXPECT_EQ(zelSttRequest_Start(request, &utterance), 1u);
    EXPECT_EQ(zelSttRequest_GetState(request), STT_REQUEST_REQUESTING);
    host.WaitForWorkers();
    zelSttRequest_Poll(request);
    char text[1200];
    const bool succeeded = zelSttRequest_CopyText(request, text, sizeof(text)) >= 0;
    EXPECT_EQ(zelSttRequest_GetState(request), succeeded ? STT_REQUEST_SUCCEEDED : STT_REQUEST_FAILED);
    return succeeded ? text : host.TakeReports().at(0);
  }

  SttRequest* const request = record->request;
};

TEST(RecognitionRequest, PostsTheUtterance) {
  RequestRig rig;
  rig.Run(Recognized("hello"));
  const Exchange first = rig.executor.exchanges().at(0);
  EXPECT_EQ(first.url, "http://service/recognize?language=en-US&speaker=user01");
  EXPECT_EQ(first.method, "POST");
  EXPECT_EQ(first.headers, (std::vector<std::pair<std::string, std::string>>{{"Content-Type", "audio/ogg; codecs=opus"},
                                                                             {"Authorization", "Bearer token"},
                                                                             {"Accept", "application/json"}}));
  EXPECT_EQ(first.body, "Ogg");
  EXPECT_EQ(first.timeout_sec, 20);
  EXPECT_FALSE(first.user_name || first.user_pass);

  // Each query replaces the one before; what base URL and speaker hold goes out as it is.
  zelSttRequest_SetAuthorization(rig.request, nullptr);
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
    EXPECT_EQ(zelSttRequest_SetUrl(rig.request, test.base), 1u);
    EXPECT_EQ(rig.Run(Recognized("x"), test.utterance), "x");
    EXPECT_EQ(rig.host.TakeReports(), test.reports);
    const Exchange posted = rig.executor.exchanges().back();
    EXPECT_EQ(posted.url, test.url);
    EXPECT_EQ(posted.body.size(), test.utterance.body_size);
    EXPECT_EQ(posted.headers[1].second, "");
  }
}

TEST(RecognitionRequest, FailsAtOnceWhenTheUtteranceCannotBePosted) {
  RequestRig rig;
  const std::string refused = "0 E2022110407:Failed to request for SpeechToText.";
  const std::string because = "0 E2022121", limit = ":Failed to request becase ZelWreqAsyncConfig::";
  const std::size_t query = std::strlen("?language=en-US&speaker=user01");
  const struct {
    std::size_t base;   // length of the base URL
    std::size_t token;  // of the authorization value
    std::uint32_t body;
    Reports reports;  // none when accepted
  } cases[] = {
      {1023 - query, 511, 81920, {}},
      {1024 - query, 511, 81920, {refused}},
      {5000, 511, 81920, {refused}},
      {10, 512, 3, {because + "326" + limit + "max_header_value_length is not enough.", refused}},
      {10, 9, 81921, {because + "329" + limit + "max_request_body_length is not enough.", refused}},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE("case " + std::to_string(&test - cases));
    const std::string url(test.base, 'u'), token(test.token, 't');
    zelSttRequest_SetUrl(rig.request, url.c_str());
    zelSttRequest_SetAuthorization(rig.request, token.c_str());
    const SttUtterance utterance = {kBody, test.body, "user01", 1};
    const bool accepted = test.reports.empty();
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
  const struct {
    std::int32_t result;
    std::uint32_t status, error_kind;
    const char* word;
  } cases[] = {{1, 0, 0, "unknown"},        {1, 0, 1, "time out"},  {1, 0, 2, "DNS"},
               {1, 0, 3, "connection"},     {1, 0, 4, "SSL"},       {1, 400, 5, "bad request"},
               {1, 401, 5, "unauthorized"}, {1, 404, 5, "unknown"}, {1, 500, 5, "internal server"},
               {1, 0, 6, "internal"},       {3, 0, 0, "unknown"}};
  for (const auto& test : cases) {
    EXPECT_EQ(rig.Run({"", test.result, test.status, test.error_kind}),
              std::string("0 E2022110402:Failed to request SpeechToText because it is %s error.|") + test.word);
  }
}

TEST(RecognitionRequest, ReadsTheReply) {
  const std::string bad =
      "0 E2022110401:Failed to request SpeechToText because it is bad request.(ErrorCode:%s, ErrorMessage:%s)|";
  const std::string none = bad + "invalid_string|invalid_string", many(1100, 'x');
  const struct {
    std::string body, outcome;
  } cases[] = {
      {R"({"result":"success","version":"1.0","speaker":"user01","text":"hello"})", "hello"},
      {R"({"text":"a\"\u00e4\n","result":"success","more":[{}]})", R"(a\"\u00e4\n)"},
      {R"({"result":"success"})", "invalid_string"},
      {R"({"result":"success","text":""})", ""},
      {R"({"result":"success","text":")" + many + "\"}", many.substr(0, 1023)},
      {R"({"result":"error","error_code":400})", bad + "400|invalid_string"},
      {R"({"result":"x","error_code":")" + many.substr(0, 50) + R"(","error_message":")" + many.substr(0, 200) + "\"}",
       bad + many.substr(0, 31) + "|" + many.substr(0, 127)},
      {R"({"result":"successful"})", none},
      {R"({"reply":{"result":"success"}})", none},
      {R"({"result":"success","text":"cut)", none},
  };
  RequestRig rig;
  for (const auto& test : cases) {
    for (const std::uint32_t status : {200u, 500u})
      EXPECT_EQ(rig.Run({test.body, 0, status}), test.outcome) << test.body;
  }
  rig.Run({R"({"result":"success","version":"1234567890123456","speaker":"me"})"});
  EXPECT_STREQ(rig.request->reply_version, "123456789012345");
  EXPECT_STREQ(rig.request->reply_speaker, "me");
  EXPECT_STREQ(rig.request->reply_error_code, "invalid_string") << "kept until it is set again";
  zelSttRequest_Reset(rig.request);
  char text[1200];
  EXPECT_EQ(zelSttRequest_CopyText(rig.request, text, 1200), -1);
}

}  // namespace
