// Operations that meet an exchange in flight, and finalization that meets sessions in use.
#include <gmock/gmock.h>

#include <atomic>

#include "bridge_services.h"
#include "chain_rig.h"
#include "http_server.h"
#include "text_packet.h"
#include "zel_rtc_speech_to_text.h"
#include "zel_rtc_speech_to_text_host.h"

namespace {

using zel::host::bridge_interface;

std::atomic<int> naps, joins;  // calls of services with which the library waits

// The plug-in without a room around it. Sessions have two members.
class Waiting : public ChainTest {
 protected:
  Waiting() {
    naps = joins = 0;
    table_.thread_sleep = [](std::uint32_t milliseconds) {
      ++naps;
      bridge_interface().table->thread_sleep(milliseconds);
    };
    table_.thread_join = [](void* thread) {
      ++joins;
      bridge_interface().table->thread_join(thread);
    };
    const ZelBaseRtcBridgeInterface record = {ZEL_BASE_RTC_BRIDGE_VERSION, &table_};
    zelRtcSpeechToText_SetBaseRtcBridgeInterface(&record);
    std::vector<char>& work = areas_.emplace_back(zelRtcSpeechToText_CalculateWorkSize(nullptr));
    EXPECT_EQ(zelRtcSpeechToText_Initialize(nullptr, work.data(), static_cast<std::int32_t>(work.size())), 1U);
  }
  ~Waiting() override {
    if (zelRtcSpeechToText_IsInitialized() != 0) zelRtcSpeechToText_Finalize();
    EXPECT_EQ(zelRtcSpeechToText_IsInitialized(), 0U);
    EXPECT_EQ(zel::host::clock_users(), 0U);
    zelRtcSpeechToText_SetBaseRtcBridgeInterface(&bridge_interface());  // ours ends here
  }

  SttSession* create(std::uint16_t port) {
    ZelRtcSpeechToTextSessionConfig config;
    zelRtcSpeechToTextSession_SetDefaultConfig(&config);
    config.max_identifiable_members = 2;
    std::vector<char>& work = areas_.emplace_back(zelRtcSpeechToTextSession_CalculateWorkSize(&config));
    SttSession* session =
        zelRtcSpeechToTextSession_Create(&config, work.data(), static_cast<std::int32_t>(work.size()));
    EXPECT_NE(session, nullptr);
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/stt";
    EXPECT_EQ(session->interface_table->SetEndpointUrl(session->body, url.c_str(), 1), 1U);
    EXPECT_EQ(session->interface_table->Attach(session->body), 1U);
    return session;
  }
  static void say(SttRecognizerHn member) {
    const std::uint8_t packet[40] = {0x58};
    for (int i = 0; i < 17; ++i) {
      const SttAudioFrame frame = {i < 10 ? packet : nullptr, sizeof packet};
      EXPECT_EQ(member->interface_table->PutAudioFrame(member->instance, &frame), 1U);
    }
  }
  static std::string hear(SttSession* session, SttRecognizerHn member) {
    zel::host::TextPacket packet;
    wait_until(
        [&] {
          session->interface_table->Update(session->body);
          packet = zel::host::TextPacket(member->interface_table->PopTextPacket(member->instance));
        },
        [&] { return bool(packet); });
    return std::string(packet.text());
  }
  // Brings one utterance as far as the service.
  static void begin_exchange(SttSession* session, SttRecognizerHn member, const kit::HttpServer& server) {
    say(member);
    const std::size_t before = server.requests().size();
    session->interface_table->Update(session->body);
    wait_until([] {}, [&] { return server.requests().size() > before; });
  }
  // Runs the operation beside, and lets the service answer once the operation waits.
  template <typename Operation>
  static void run_across_the_answer(Operation operation, const std::atomic<int>& waits, kit::HttpServer& server) {
    std::atomic<bool> done{false};
    std::thread beside([&] {
      operation();
      done = true;
    });
    wait_until([] {}, [&] { return waits > 2 || done; });
    EXPECT_FALSE(done) << "has not waited for the service";
    server.Release();
    beside.join();
  }

 private:
  BridgeTable table_ = *bridge_interface().table;
  std::vector<std::vector<char>> areas_;
};

kit::Script answer(const std::string& text) {
  return {kit::ReadRequest(), kit::Send(kit::Reply("200 OK", recognized(text)))};
}
kit::Script late_answer() {
  return {kit::ReadRequest(), kit::Stall(), kit::Send(kit::Reply("200 OK", recognized("late")))};
}

TEST_F(Waiting, ResetAndReleaseWaitForTheExchangeInFlight) {
  using Operation = void (*)(SttSession*, SttRecognizerHn);
  const std::pair<const char*, Operation> operations[] = {
      {"reset A", [](SttSession* s, SttRecognizerHn) { s->interface_table->ResetRecognizersA(s->body); }},
      {"reset B", [](SttSession* s, SttRecognizerHn) { s->interface_table->ResetRecognizersB(s->body); }},
      {"release", [](SttSession* s, SttRecognizerHn m) { s->interface_table->ReleaseRecognizer(s->body, m); }},
      {"release all", [](SttSession* s, SttRecognizerHn) { s->interface_table->ReleaseAllRecognizers(s->body); }},
  };
  for (const auto& [name, operation] : operations) {
    SCOPED_TRACE(name);
    kit::HttpServer server({late_answer(), answer("next")});
    SttSession* session = create(server.port());
    const SttSessionInterface& api = *session->interface_table;
    SttRecognizerHn member = api.AcquireRecognizer(session->body);
    begin_exchange(session, member, server);
    say(member);  // waits its turn, which will not come
    naps = 0;
    run_across_the_answer([&, op = operation] { op(session, member); }, naps, server);
    api.Update(session->body);
    EXPECT_EQ(member->interface_table->PopTextPacket(member->instance), nullptr);
    api.ReleaseAllRecognizers(session->body);
    member = api.AcquireRecognizer(session->body);
    say(member);
    EXPECT_EQ(hear(session, member), "next");
    EXPECT_EQ(server.requests().size(), 2U);
    api.Detach(session->body);
    EXPECT_EQ(zelRtcSpeechToTextSession_Destroy(session), 1U);
  }
  EXPECT_THAT(take_reports(), testing::IsEmpty());
}

TEST_F(Waiting, FinalizationSparesAttachedSessionsAndWaitsForTheOthers) {
  kit::HttpServer server({late_answer(), answer("next")});
  const auto refused = testing::ElementsAre(testing::StartsWith("E2022102623:Failed to destroy this handle(0x"));
  SttSession* detached = create(server.port());
  SttSession* attached = create(server.port());
  SttRecognizerHn idle = attached->interface_table->AcquireRecognizer(attached->body);
  SttRecognizerHn busy = detached->interface_table->AcquireRecognizer(detached->body);
  begin_exchange(detached, busy, server);
  detached->interface_table->Detach(detached->body);

  std::atomic<bool> done{false};
  std::thread beside([&] {
    zelRtcSpeechToText_Finalize();
    done = true;
  });
  wait_until([] {}, [&] { return joins > 0 || done; });
  EXPECT_FALSE(done) << "has not waited for the service";
  server.Release();
  beside.join();
  EXPECT_THAT(take_reports(), refused);
  EXPECT_EQ(zelRtcSpeechToText_IsInitialized(), 1U);
  EXPECT_GT(zel::host::clock_users(), 0U);

  say(idle);
  EXPECT_EQ(hear(attached, idle), "next") << "goes on as if nothing had happened";
  SttSession* late = create(server.port());
  late->interface_table->Detach(late->body);
  zelRtcSpeechToText_Finalize();
  EXPECT_THAT(take_reports(), refused);
  EXPECT_EQ(zelRtcSpeechToText_IsInitialized(), 1U);

  attached->interface_table->Detach(attached->body);
  zelRtcSpeechToText_Finalize();
  EXPECT_EQ(zelRtcSpeechToText_IsInitialized(), 0U);
  EXPECT_THAT(take_reports(), testing::IsEmpty());
}

}  // namespace
