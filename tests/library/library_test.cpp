#include <cctype>
#include <cstdlib>
#include <string>

#include "bridge.h"
#include "scripted_host.h"
#include "session_registry.h"
#include "zel_rtc_speech_to_text.h"

namespace {

const std::string kMismatch =
    ":Mismatch between ZEL Rtc SpeechToText header version and linked library version. (Library version is %s, but the "
    "specified version is %s.)|1.2.147-1.7|";
const std::string kNotInitialized = ":ZelRtcSpeechToText is failed to initialize.";
const std::string kNoRegistry = ":ZelRtcSpeechToTextSesion is failed to initialize.";

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
  EXPECT_EQ(zelRtcSpeechToText_IsInitialized(), 0u);
  // The rest fails instead of crashing.
  EXPECT_EQ(zelRtcSpeechToText_Initialize(nullptr, nullptr, 0), 0u);
  EXPECT_EQ(zelRtcSpeechToText_CalculateWorkSize(nullptr), -1);
  zelRtcSpeechToText_Finalize();
}

TEST(Library, RefusesForeignVersions) {
  ScriptedHost host;
  WorkArea area(zelRtcSpeechToText_CalculateWorkSize(nullptr));
  ZelRtcSpeechToTextConfig config;
  zelRtcSpeechToText_SetDefaultConfig(&config);
  EXPECT_EQ(zelRtcSpeechToText_CalculateWorkSize(&config), area.size());
  for (const std::string version : {"0.1.2", "0.1.20 ", "1.2.147-1.7", ""}) {
    config.version = version.c_str();
    EXPECT_EQ(zelRtcSpeechToText_CalculateWorkSize(&config), -1);
    EXPECT_EQ(zelRtcSpeechToText_Initialize(&config, area.data(), area.size()), 0u);
    EXPECT_EQ(host.TakeReports(),
              (Reports{"0 E2022101100" + kMismatch + version, "0 E2022101102" + kMismatch + version}));
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
    EXPECT_EQ(zelRtcSpeechToText_IsInitialized(), 1u);
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
  EXPECT_EQ(host.Count(SLOT(user_allocator_free)), 2);
}

TEST(Library, UndoesWhateverFails) {
  ScriptedHost host;
  int out = 0;
  RegisterAllocator(&out);
  const std::string e = "0 E20221";
  const struct {
    int slot;
    std::vector<Reports> failures;  // of the first call, the second, ...
  } services[] = {
      {SLOT(work_size_total), {{e + "11475" + kNotInitialized}, {}, {e + "11475" + kNotInitialized}}},
      {SLOT(user_allocator_allocate), {{"0 E2022101105 -3"}}},
      {SLOT(fixed_allocator_allocate),
       {{e + "11445 -2", e + "11476" + kNotInitialized},
        {e + "11472" + kNoRegistry, e + "11476" + kNotInitialized},
        {e + "11473" + kNoRegistry, e + "11476" + kNotInitialized}}},
      {SLOT(mutex_create), {{e + "11473" + kNoRegistry, e + "11476" + kNotInitialized}}},
  };
  for (const auto& service : services) {
    for (std::size_t k = 0;; ++k) {
      SCOPED_TRACE("call " + std::to_string(k + 1) + " of slot " + std::to_string(service.slot));
      host.Fail(service.slot, static_cast<int>(k) + 1);
      const uint32_t result = zelRtcSpeechToText_Initialize(nullptr, nullptr, 0);
      if (!host.Failed()) {
        EXPECT_EQ(result, 1u);
        EXPECT_EQ(k, service.failures.size());
        zelRtcSpeechToText_Finalize();
        break;
      }
      EXPECT_EQ(result + zelRtcSpeechToText_IsInitialized(), 0u);
      ASSERT_LT(k, service.failures.size());
      EXPECT_EQ(host.TakeReports(), service.failures[k]);
      EXPECT_FALSE(zelSttRegistry_Exists());
      EXPECT_EQ(out, 0);
      EXPECT_EQ(host.Live(), (std::array<int, kLiveKinds>{}));
      EXPECT_EQ(host.timer_depth, 0);
    }
  }
  host.Fail(SLOT(work_size_total), 2);
  EXPECT_EQ(zelRtcSpeechToText_CalculateWorkSize(nullptr), -1);
}

}  // namespace
