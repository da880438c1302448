// zel-speechd as a user runs it.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <future>

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
  const std::string line = program.ReadLine();
  const std::string prefix = "listening on ";
  ASSERT_EQ(line.substr(0, prefix.size() + 17), prefix + "http://127.0.0.1:") << program.errors();

  httplib::Client client(line.substr(prefix.size()));
  client.set_read_timeout(30);
  EXPECT_EQ(client.Get("/healthz")->status, 200);
  const std::string body = WriteOggOpus(LoadRecording(kGoForward));
  const char* path = "/v1/recognize?language=en-US&speaker=me";
  EXPECT_EQ(client.Post(path, body, "audio/ogg")->status, 401);
  const httplib::Result heard = client.Post(path, {{"Authorization", "Bearer secret"}}, body, "audio/ogg");
  ASSERT_TRUE(heard);
  EXPECT_EQ(heard->body, R"({"result":"success","version":"1.0","speaker":"me","text":"go forward ten meters"})");

  program.Signal(SIGTERM);
  EXPECT_EQ(program.Wait(), 0);
  EXPECT_EQ(program.errors(), "");
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
    std::vector<std::string> command = {kProgram};
    command.insert(command.end(), c.arguments.begin(), c.arguments.end());
    ChildProcess program(command);
    EXPECT_EQ(program.Wait(), c.status);
    EXPECT_NE((program.output() + program.errors()).find(c.says), std::string::npos) << program.errors();
  }
}

}  // namespace
}  // namespace speechd_test
