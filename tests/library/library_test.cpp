#include <cctype>
#include <cstdlib>
#include <string>

#include "bridge.h"
#include "scripted_host.h"
#include "session_registry.h"
#include "zel_rtc_speech_to_text.h"

namespace {

TEST(Library, AnswersBeforeABridgeIsInstalled) {
  zel_bridge_interface = {};
  ZelRtcSpeechToTextConfig config{};
  zelRtcSpeechToText_SetDefaultConfig(&config);
  EXPECT_STREQ(config.version, "0.1.20");
  EXPECT_EQ(config.reserved, 16u);
  ZelRtcSpeechToTextSessionConfig session{};
  zelRtcSpeechToTextSession_SetDefaultConfig(&session);
  EXPECT_TRUE(session.max_queueing_messages == 16 && session.max_text_message_size == 1200 &&
              session.reserved == 20000 && session.max_identifiable_members == 16);
  const std::string banner = zelRtcSpeechToText_GetLibraryVersionString() - 1;
  const std::string product = "\nZEL Rtc SpeechToText/PCx64 Ver.0.1.20 Build:";
  EXPECT_EQ(banner.substr(0, product.size()), product);
  std::string stamp = banner.substr(product.size());
  for (char& c : stamp)
    c = std::isdigit(c) ? '9' : std::isupper(c) ? 'A' : std::islower(c) ? 'a' : c;
  EXPECT_TRUE(stamp == "Aaa 99 9999 99:99:99\n" || stamp == "Aaa  9 9999 99:99:99\n") << banner;
  // The rest fails instead of crashing.
  EXPECT_TRUE(zelRtcSpeechToText_CalculateWorkSize(nullptr) == -1 &&
              zelRtcSpeechToTextSession_CalculateWorkSize(nullptr) == -1);
  EXPECT_FALSE(zelRtcSpeechToText_Initialize(nullptr, nullptr, 0) || zelRtcSpeechToText_IsInitialized() ||
               zelRtcSpeechToTextSession_Create(nullptr, nullptr, 0) || zelRtcSpeechToTextSession_Destroy(nullptr) ||
               zelRtcSpeechToTextSession_EnableMember(nullptr, nullptr, 1));
  zelRtcSpeechToText_SetUserMallocFunction(nullptr, nullptr);
  zelRtcSpeechToText_SetUserFreeFunction(nullptr, nullptr);
  zelRtcSpeechToText_SetBaseRtcBridgeInterface(nullptr);
  zelRtcSpeechToText_SetDefaultConfig(nullptr);
  zelRtcSpeechToTextSession_SetDefaultConfig(nullptr);
  zelRtcSpeechToText_Finalize();
}

TEST(Library, RefusesForeignVersions) {
  ScriptedHost host;
  const std::string mismatch =
      ":Mismatch between ZEL Rtc SpeechToText header version and linked library version. (Library version is %s, but "
      "the specified version is %s.)|1.2.147-1.7|";
  WorkArea area(zelRtcSpeechToText_CalculateWorkSize(nullptr));
  for (const char* version : {"0.1.2", "0.1.20 ", static_cast<const char*>(nullptr)}) {
    const ZelRtcSpeechToTextConfig config = {version, 16};
    const std::string named = mismatch + (version != nullptr ? version : "");
    EXPECT_EQ(zelRtcSpeechToText_CalculateWorkSize(&config), -1);
    EXPECT_EQ(zelRtcSpeechToText_Initialize(&config, area.data(), area.size()), 0u);
    EXPECT_EQ(host.TakeReports(), (Reports{"0 E2022101100" + named, "0 E2022101102" + named}));
  }
  EXPECT_TRUE(area.untouched());
}

TEST(Library, InitializesInASuppliedAreaAtEveryMisalignment) {
  ScriptedHost host;
  const std::string copy = "0.1.20";  // another address than the library's
  const ZelRtcSpeechToTextConfig config = {copy.c_str(), 0};
  for (std::size_t misalignment = 0; misalignment < 8; ++misalignment) {
    WorkArea area(zelRtcSpeechToText_CalculateWorkSize(&config), misalignment);
    for (const int32_t size : {area.size() - 1, 1, INT32_MIN}) {
      EXPECT_EQ(zelRtcSpeechToText_Initialize(&config, area.data(), size), 0u);
      EXPECT_EQ(host.TakeReports(), Reports{"0 E2022101106 -2"}) << size;
    }
    host.ForgetCalls();
    ASSERT_EQ(zelRtcSpeechToText_Initialize(&config, area.data(), area.size()), 1u);
    const Blocks registry = {{32, 8}, {72, 1}};
    EXPECT_EQ(host.calculations[0], registry);
    EXPECT_EQ(host.carvings, (std::vector<Blocks>{host.calculations[1], registry}));
    EXPECT_EQ(host.timer_depth, 2);
    EXPECT_EQ(zelRtcSpeechToText_Initialize(&config, area.data(), area.size()), 0u);
    EXPECT_EQ(host.TakeReports(), Reports{"0 E2022101101:ZEL Rtc SpeechToText Library is initialized."});
    EXPECT_EQ(zelRtcSpeechToText_IsInitialized(), 1u);
    zelRtcSpeechToText_Finalize();
    EXPECT_EQ(zelRtcSpeechToText_IsInitialized(), 0u);
    EXPECT_EQ(host.timer_depth, 0);
    zelRtcSpeechToText_Finalize();
    EXPECT_EQ(host.TakeReports(), Reports{"0 E2022101103 -6"});
  }
}

TEST(Library, TakesItsAreaFromTheApplicationsAllocator) {
  ScriptedHost host;
  int out = 0;  // blocks
  zelRtcSpeechToText_SetUserMallocFunction(
      [](void* object, uint32_t size) { return ++*static_cast<int*>(object), std::malloc(size); }, &out);
  zelRtcSpeechToText_SetUserFreeFunction(
      [](void* object, void* block) { --*static_cast<int*>(object), std::free(block); }, &out);
  WorkArea area(zelRtcSpeechToText_CalculateWorkSize(nullptr));
  const struct {
    void* work;
    int32_t size;
    int taken;
  } cases[] = {{nullptr, 1000, 1}, {area.data(), 0, 1}, {area.data(), area.size(), 0}};
  for (const auto& test : cases) {
    ASSERT_EQ(zelRtcSpeechToText_Initialize(nullptr, test.work, test.size), 1u);
    EXPECT_EQ(out, test.taken);
    zelRtcSpeechToText_Finalize();
    EXPECT_EQ(out, 0);
  }
}

TEST(SessionRegistry, RefusesMisuse) {
  ScriptedHost host;
  const SttRegistryConfig config = {99};  // its field is not looked at
  WorkArea area(zelSttRegistry_CalculateWorkSize(&config));
  const auto size = static_cast<uint32_t>(area.size());
  EXPECT_TRUE(zelSttRegistry_CalculateWorkSize(nullptr) == -1);
  EXPECT_FALSE(zelSttRegistry_Initialize(nullptr, area.data(), size) ||
               zelSttRegistry_Initialize(&config, nullptr, size));
  zelSttRegistry_Finalize();
  EXPECT_EQ(zelSttRegistry_Initialize(&config, area.data(), size), 1u);
  EXPECT_EQ(zelSttRegistry_Initialize(&config, area.data(), size), 0u);
  zelSttRegistry_Finalize();
  EXPECT_EQ(host.TakeReports(), (Reports{"0 E2022111443 -2", "0 E2022111444 -2", "0 E2022111445 -2",
                                         "0 E2022111449:ZelRtcspeechToTextSession is not initialized.",
                                         "0 E2022111448:ZelRtcspeechToTextSession is already initialized."}));
}

}  // namespace
