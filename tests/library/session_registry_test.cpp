#include "session_registry.h"

#include "scripted_executor.h"
#include "scripted_host.h"
#include "zel_rtc_speech_to_text.h"

namespace {

TEST(SessionRegistry, RefusesMisuse) {
  ScriptedHost host;
  WorkArea area(zelSttRegistry_CalculateWorkSize(&kSttRegistryConfig));
  const SttRegistryConfig config = {99};  // its field is not looked at
  const auto size = static_cast<uint32_t>(area.size());
  EXPECT_EQ(zelSttRegistry_CalculateWorkSize(nullptr), -1);
  EXPECT_EQ(zelSttRegistry_Initialize(nullptr, area.data(), size), 0u);
  EXPECT_EQ(zelSttRegistry_Initialize(&config, nullptr, size), 0u);
  zelSttRegistry_Finalize();
  EXPECT_EQ(host.TakeReports(), (Reports{"0 E2022111443 -2", "0 E2022111444 -2", "0 E2022111445 -2",
                                         "0 E2022111449:ZelRtcspeechToTextSession is not initialized."}));
  EXPECT_EQ(zelSttRegistry_CalculateWorkSize(&config), area.size());
  ASSERT_EQ(zelSttRegistry_Initialize(&config, area.data(), size), 1u);
  EXPECT_EQ(zelSttRegistry_Initialize(&config, area.data(), size), 0u);
  EXPECT_EQ(host.TakeReports(), Reports{"0 E2022111448:ZelRtcspeechToTextSession is already initialized."});
  EXPECT_TRUE(zelSttRegistry_Exists());
  zelSttRegistry_Finalize();
  EXPECT_FALSE(zelSttRegistry_Exists());
}

// Finalization destroys what is detached, whatever stands around it, and can be repeated until nothing is attached.
TEST(SessionRegistry, FinalizationDestroysTheSessionsThatAreLeft) {
  ScriptedHost host;
  ScriptedExecutor executor;
  constexpr ZelRtcSpeechToTextSessionConfig kConfig = {4, 10, 0, 1};
  for (unsigned attached = 0; attached < 8; ++attached) {
    SCOPED_TRACE("attached: " + std::to_string(attached));
    WorkArea library(zelRtcSpeechToText_CalculateWorkSize(nullptr));
    ASSERT_EQ(zelRtcSpeechToText_Initialize(nullptr, library.data(), library.size()), 1u);
    WorkArea area0(zelRtcSpeechToTextSession_CalculateWorkSize(&kConfig)), area1(area0.size()), area2(area0.size());
    WorkArea* areas[] = {&area0, &area1, &area2};
    ZelRtcSpeechToTextSessionHn sessions[3];
    Reports refusals;
    for (unsigned i = 0; i < 3; ++i) {
      sessions[i] = zelRtcSpeechToTextSession_Create(&kConfig, areas[i]->data(), areas[i]->size());
      ASSERT_NE(sessions[i], nullptr);
      if ((attached >> i & 1) == 0) continue;
      sessions[i]->interface_table->Attach(sessions[i]->body);
      char handle[32];
      std::snprintf(handle, sizeof(handle), "%llx",
                    static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(sessions[i])));
      refusals.push_back(
          "0 E2022102623:Failed to destroy this handle(0x%08x). Please detach this handle from "
          "ZelRtcRoomSessionHn.|" +
          std::string(handle));
    }
    zelRtcSpeechToText_Finalize();
    EXPECT_EQ(host.TakeReports(), refusals);
    const bool refused = attached != 0;
    EXPECT_EQ(zelRtcSpeechToText_IsInitialized(), refused ? 1u : 0u);
    EXPECT_EQ(host.Live()[kThreads], static_cast<int>(refusals.size()));
    EXPECT_EQ(host.timer_depth, refused ? 2 : 0);
    if (!refused) continue;
    for (unsigned i = 0; i < 3; ++i) {
      if ((attached >> i & 1) == 0) continue;
      EXPECT_EQ(sessions[i]->interface_table->IsAttached(sessions[i]->body), 1u);
      EXPECT_EQ(sessions[i]->interface_table->Detach(sessions[i]->body), 1u);
    }
    zelRtcSpeechToText_Finalize();
    EXPECT_EQ(zelRtcSpeechToText_IsInitialized(), 0u);
    EXPECT_EQ(host.Live(), (std::array<int, kLiveKinds>{}));
  }
  EXPECT_EQ(host.Count(SLOT(timer_initialize)), host.Count(SLOT(timer_finalize)));
}

}  // namespace
