#include <cctype>
#include <cstdlib>
#include <string>

#include "bridge.h"
#include "scripted_executor.h"
#include "scripted_host.h"
#include "session_registry.h"
#include "zel_rtc_speech_to_text.h"

namespace {

// Allocation functions whose object counts what is out.
void RegisterAllocator(int* out) {
  zelRtcSpeechToText_SetUserMallocFunction(
      [](void* object, uint32_t size) {
        ++*static_cast<int*>(object);
        return std::malloc(size);
      },
      out);
  zelRtcSpeechToText_SetUserFreeFunction(
      [](void* object, void* block) {
        --*static_cast<int*>(object);
        std::free(block);
      },
      out);
}

TEST(Library, AnswersBeforeABridgeIsInstalled) {
  zel_bridge_interface = {};
  ZelRtcSpeechToTextConfig config{};
  zelRtcSpeechToText_SetDefaultConfig(&config);
  EXPECT_STREQ(config.version, "0.1.20");
  EXPECT_EQ(config.reserved, 16u);
  ZelRtcSpeechToTextSessionConfig session{};
  zelRtcSpeechToTextSession_SetDefaultConfig(&session);
  EXPECT_EQ(session.max_queueing_messages, 16);
  EXPECT_EQ(session.max_text_message_size, 1200u);
  EXPECT_EQ(session.reserved, 20000u);
  EXPECT_EQ(session.max_identifiable_members, 16u);
  const std::string banner = zelRtcSpeechToText_GetLibraryVersionString();
  const std::string product = "ZEL Rtc SpeechToText/PCx64 Ver.0.1.20 Build:";
  EXPECT_EQ(banner.substr(0, product.size()), product);
  std::string stamp = banner.substr(product.size());
  for (char& c : stamp)
    c = std::isdigit(c) ? '9' : std::isupper(c) ? 'A' : std::islower(c) ? 'a' : c;
  EXPECT_TRUE(stamp == "Aaa 99 9999 99:99:99\n" || stamp == "Aaa  9 9999 99:99:99\n") << banner;
  EXPECT_EQ(zelRtcSpeechToText_GetLibraryVersionString()[-1], '\n');
  // The rest fails instead of crashing.
  EXPECT_EQ(zelRtcSpeechToText_Initialize(nullptr, nullptr, 0), 0u);
  EXPECT_EQ(zelRtcSpeechToText_CalculateWorkSize(nullptr), -1);
  EXPECT_EQ(zelRtcSpeechToTextSession_CalculateWorkSize(nullptr), -1);
  EXPECT_EQ(zelRtcSpeechToTextSession_Create(nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(zelRtcSpeechToTextSession_Destroy(nullptr), 0u);
  EXPECT_EQ(zelRtcSpeechToTextSession_EnableMember(nullptr, nullptr, 1), 0u);
  zelRtcSpeechToText_SetUserMallocFunction(nullptr, nullptr);
  zelRtcSpeechToText_SetUserFreeFunction(nullptr, nullptr);
  zelRtcSpeechToText_SetBaseRtcBridgeInterface(nullptr);
  zelRtcSpeechToText_SetDefaultConfig(nullptr);
  zelRtcSpeechToTextSession_SetDefaultConfig(nullptr);
  zelRtcSpeechToText_Finalize();
  EXPECT_EQ(zelRtcSpeechToText_IsInitialized(), 0u);
}

TEST(Library, RefusesForeignVersions) {
  ScriptedHost host;
  const std::string mismatch =
      ":Mismatch between ZEL Rtc SpeechToText header version and linked library version. (Library version is %s, but "
      "the specified version is %s.)|1.2.147-1.7|";
  WorkArea area(zelRtcSpeechToText_CalculateWorkSize(nullptr));
  for (const char* version : {"0.1.2", "0.1.20 ", "1.2.147-1.7", "", static_cast<const char*>(nullptr)}) {
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
    for (const int32_t size : {area.size() - 1, 1, -1, INT32_MIN}) {
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
    EXPECT_EQ(host.Count(SLOT(timer_finalize)), 2);
    zelRtcSpeechToText_Finalize();
    EXPECT_EQ(host.TakeReports(), Reports{"0 E2022101103 -6"});
  }
}

TEST(Library, TakesItsAreaFromTheApplicationsAllocator) {
  ScriptedHost host;
  int out = 0;
  WorkArea area(1000);
  EXPECT_EQ(zelRtcSpeechToText_Initialize(nullptr, nullptr, 1000), 0u);
  EXPECT_EQ(host.TakeReports(), Reports{"0 E2022101104:User allocator function has not been set."});
  RegisterAllocator(&out);
  for (void* work : {static_cast<void*>(nullptr), area.data()}) {
    ASSERT_EQ(zelRtcSpeechToText_Initialize(nullptr, work, work != nullptr ? 0 : 1000), 1u);
    EXPECT_EQ(out, 1);
    zelRtcSpeechToText_Finalize();
    EXPECT_EQ(out, 0);
  }
  EXPECT_TRUE(area.untouched());
}

TEST(SessionRegistry, RefusesMisuse) {
  ScriptedHost host;
  const SttRegistryConfig config = {99};  // its field is not looked at
  WorkArea area(zelSttRegistry_CalculateWorkSize(&config));
  const auto size = static_cast<uint32_t>(area.size());
  EXPECT_EQ(zelSttRegistry_CalculateWorkSize(nullptr), -1);
  EXPECT_EQ(zelSttRegistry_Initialize(nullptr, area.data(), size), 0u);
  EXPECT_EQ(zelSttRegistry_Initialize(&config, nullptr, size), 0u);
  zelSttRegistry_Finalize();
  ASSERT_EQ(zelSttRegistry_Initialize(&config, area.data(), size), 1u);
  EXPECT_EQ(zelSttRegistry_Initialize(&config, area.data(), size), 0u);
  zelSttRegistry_Finalize();
  EXPECT_EQ(host.TakeReports(), (Reports{"0 E2022111443 -2", "0 E2022111444 -2", "0 E2022111445 -2",
                                         "0 E2022111449:ZelRtcspeechToTextSession is not initialized.",
                                         "0 E2022111448:ZelRtcspeechToTextSession is already initialized."}));
}

// Finalization destroys what is detached, whatever stands around it, and can be repeated until nothing is attached.
TEST(SessionRegistry, FinalizationDestroysTheSessionsThatAreLeft) {
  ScriptedHost host;
  ScriptedExecutor executor;
  constexpr ZelRtcSpeechToTextSessionConfig kConfig = {4, 10, 0, 1};
  for (unsigned pattern = 0; pattern < 8; ++pattern) {
    SCOPED_TRACE("attached: " + std::to_string(pattern));
    WorkArea library(zelRtcSpeechToText_CalculateWorkSize(nullptr));
    ASSERT_EQ(zelRtcSpeechToText_Initialize(nullptr, library.data(), library.size()), 1u);
    WorkArea area0(zelRtcSpeechToTextSession_CalculateWorkSize(&kConfig)), area1(area0.size()), area2(area0.size());
    std::vector<ZelRtcSpeechToTextSessionHn> attached;
    Reports refusals;
    WorkArea* const areas[] = {&area0, &area1, &area2};
    for (unsigned i = 0; i < 3; ++i) {
      const auto session = zelRtcSpeechToTextSession_Create(&kConfig, areas[i]->data(), areas[i]->size());
      ASSERT_NE(session, nullptr);
      if ((pattern >> i & 1) == 0) continue;
      session->interface_table->Attach(session->body);
      attached.push_back(session);
      char handle[32];
      std::snprintf(handle, sizeof(handle), "|%llx",
                    static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(session)));
      refusals.push_back(
          "0 E2022102623:Failed to destroy this handle(0x%08x). Please detach this handle from "
          "ZelRtcRoomSessionHn." +
          std::string(handle));
    }
    zelRtcSpeechToText_Finalize();
    EXPECT_EQ(host.TakeReports(), refusals);
    EXPECT_EQ(zelRtcSpeechToText_IsInitialized(), attached.empty() ? 0u : 1u);
    EXPECT_EQ(host.Live()[kThreads], static_cast<int>(attached.size()));
    EXPECT_EQ(host.timer_depth, attached.empty() ? 0 : 2);
    for (const auto session : attached)
      EXPECT_EQ(session->interface_table->Detach(session->body), 1u);
    if (!attached.empty()) zelRtcSpeechToText_Finalize();
    EXPECT_EQ(zelRtcSpeechToText_IsInitialized(), 0u);
    EXPECT_EQ(host.Live(), (std::array<int, kLiveKinds>{}));
  }
  EXPECT_EQ(host.Count(SLOT(timer_initialize)), host.Count(SLOT(timer_finalize)));
}

}  // namespace
