// Operations that meet an exchange in flight, and finalization that meets sessions in use.
#include <gmock/gmock.h>

#include <atomic>
#include <functional>

#include "bridge_services.h"
#include "chain_rig.h"
#include "http_server.h"
#include "library.h"
#include "text_packet.h"
#include "zel_rtc_speech_to_text.h"
#include "zel_rtc_speech_to_text_host.h"

namespace {

using zel::host::bridge_interface;

std::atomic<int> naps, joins;  // calls of services with which the library waits

kit::Script late_answer() {
  return {kit::ReadRequest(), kit::Stall(), kit::Send(success("late"))};
}
kit::Script answer() {
  return {kit::ReadRequest(), kit::Send(success("next"))};
}

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
    const std::int32_t size = zelRtcSpeechToText_CalculateWorkSize(nullptr);
    EXPECT_EQ(zelRtcSpeechToText_Initialize(nullptr, area(size), size), 1U);
  }
  ~Waiting() override {
    if (zelRtcSpeechToText_IsInitialized() != 0) zelRtcSpeechToText_Finalize();
    EXPECT_EQ(zelRtcSpeechToText_IsInitialized(), 0U);
    EXPECT_EQ(zel::host::clock_users(), 0U);
    zelRtcSpeechToText_SetBaseRtcBridgeInterface(&bridge_interface());  // ours ends here
  }

  void* area(std::int32_t size) { return areas_.emplace_back(size).data(); }
  SttSession* create(const kit::HttpServer& server) {
    const ZelRtcSpeechToTextSessionConfig config = zel::host::session_config(2);
    const std::int32_t size = zelRtcSpeechToTextSession_CalculateWorkSize(&config);
    SttSession* session = zelRtcSpeechToTextSession_Create(&config, area(size), size);
    EXPECT_NE(session, nullptr);
    const std::string url = "http://127.0.0.1:" + std::to_string(server.port()) + "/stt";
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
    const auto listen = [&] {
      session->interface_table->Update(session->body);
      packet = zel::host::TextPacket(member->interface_table->PopTextPacket(member->instance));
    };
    wait_until(listen, [&] { return bool(packet); });
    return std::string(packet.text());
  }
  // Brings one utterance as far as the service.
  static void begin_exchange(SttSession* session, SttRecognizerHn member, const kit::HttpServer& server) {
    say(member);
    session->interface_table->Update(session->body);
    wait_until([] {}, [&] { return server.requests().size() == 1; });
  }
  // Runs the operation beside, and lets the service answer once the operation waits.
  static void run_across_the_answer(const std::function<void()>& operation, const std::atomic<int>& waits,
                                    kit::HttpServer& server) {
    std::atomic<bool> done{false};
    naps = joins = 0;
    std::thread beside([&] {
      operation();
      done = true;
    });
    wait_until([] {}, [&] { return waits > 0 || done; });
    EXPECT_FALSE(done) << "has not waited for the service";
    server.Release();
    beside.join();
  }

 private:
  BridgeTable table_ = *bridge_interface().table;
  std::vector<std::vector<char>> areas_;
};

TEST_F(Waiting, ResetAndReleaseWaitForTheExchangeInFlight) {
  using Operation = void (*)(const SttSessionInterface&, SttSessionBody*, SttRecognizerHn);
  const Operation operations[] = {
      [](auto& api, SttSessionBody* body, SttRecognizerHn) { api.ResetRecognizersA(body); },
      [](auto& api, SttSessionBody* body, SttRecognizerHn) { api.ResetRecognizersB(body); },
      [](auto& api, SttSessionBody* body, SttRecognizerHn member) { api.ReleaseRecognizer(body, member); },
      [](auto& api, SttSessionBody* body, SttRecognizerHn) { api.ReleaseAllRecognizers(body); },
  };
  for (std::size_t i = 0; i < std::size(operations); ++i) {
    SCOPED_TRACE(i);
    kit::HttpServer server({late_answer(), answer()});
    SttSession* session = create(server);
    const SttSessionInterface& api = *session->interface_table;
    SttRecognizerHn member = api.AcquireRecognizer(session->body);
    begin_exchange(session, member, server);
    say(member);  // waits its turn, which will not come
    run_across_the_answer([&] { operations[i](api, session->body, member); }, naps, server);
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
  kit::HttpServer server({late_answer(), answer()});
  const auto refused = testing::ElementsAre(testing::StartsWith("E2022102623:Failed to destroy this handle(0x"));
  SttSession* detached = create(server);
  SttSession* attached = create(server);
  SttRecognizerHn idle = attached->interface_table->AcquireRecognizer(attached->body);
  begin_exchange(detached, detached->interface_table->AcquireRecognizer(detached->body), server);
  detached->interface_table->Detach(detached->body);
  run_across_the_answer(zelRtcSpeechToText_Finalize, joins, server);
  EXPECT_THAT(take_reports(), refused);
  EXPECT_EQ(zelRtcSpeechToText_IsInitialized(), 1U);
  EXPECT_GT(zel::host::clock_users(), 0U);

  say(idle);
  EXPECT_EQ(hear(attached, idle), "next") << "goes on as if nothing had happened";
  SttSession* late = create(server);
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
