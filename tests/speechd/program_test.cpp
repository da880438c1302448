// zel-speechd as a user runs it.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include "child_process.h"
#include "ogg_opus_writer.h"
#include "recordings.h"

namespace speechd_test {
namespace {

const std::string kProgram = ZEL_SPEECHD_PROGRAM;

TEST(SpeechdProgram, ServesUntilItIsToldToStop) {
  const TemporaryFolder folder;
  const std::string token = folder.File("token", "secret\n");
  ChildProcess program({kProgram, "--listen", "127.0.0.1:0", "--token-file", token, "--threads", "1"});
  const std::string line = program.ReadLine(), prefix = "listening on ";
  ASSERT_TRUE(line.starts_with(prefix + "http://127.0.0.1:")) << program.Finish().err;

  httplib::Client client(line.substr(prefix.size()));
  client.set_read_timeout(110);
  EXPECT_EQ(client.Get("/healthz")->status, 200);
  const std::string body = WriteOggOpus(LoadRecording(kGoForward));
  const char* path = "/v1/recognize?language=en-US&speaker=me";
  EXPECT_EQ(client.Post(path, body, "audio/ogg")->status, 401);
  const httplib::Result heard = client.Post(path, {{"Authorization", "Bearer secret"}}, body, "audio/ogg");
  ASSERT_TRUE(heard);
  EXPECT_EQ(heard->body, R"({"result":"success","version":"1.0","speaker":"me","text":"go forward ten meters"})");

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
      {{"--listen", "0.0.0.0:0"}, 2, "--token"},
      {{"--listen", "[::]:0"}, 2, "--token"},
      {{"--listen", "127.0.0.1"}, 2, "HOST:PORT"},
      {{"--listen", "127.0.0.1:70000"}, 2, "port"},
      {{"--listen", "127.0.0.1:http"}, 2, "port"},
      {{"--token-file", "no-such-file"}, 2, "no-such-file"},
      {{"--tls-cert", "no-such-file"}, 2, "no-such-file"},
      {{"--threads", "0"}, 2, "--threads"},
      {{"--frobnicate"}, 2, "--frobnicate"},
      {{"--listen", "256.1.1.1:0", "--token", "x", "--threads", "1"}, 1, "256.1.1.1"},
      {{"--model", "no-such-folder"}, 1, "no-such-folder"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.arguments));
    std::vector<std::string> command = c.arguments;
    command.insert(command.begin(), kProgram);
    const Output output = RunProgram(command);
    EXPECT_EQ(output.status, c.status);
    EXPECT_NE((output.out + output.err).find(c.says), std::string::npos) << output.err;
  }
}

}  // namespace
}  // namespace speechd_test
