// What the library's file shows, and what it answers before anything is installed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <sstream>

#include "library_file.h"
#include "loaded_plugin.h"

namespace {

TEST(PluginFile, ExportsTheSeventeenFunctionsAndNothingElse) {
  const std::string library = "zelRtcSpeechToText_", session = "zelRtcSpeechToTextSession_";
  EXPECT_THAT(
      exported_names(ZEL_PLUGIN_FILE),
      testing::UnorderedElementsAre(
          library + "SetBaseRtcBridgeInterface", library + "SetDefaultConfig", library + "CalculateWorkSize",
          library + "Initialize", library + "Finalize", library + "IsInitialized", library + "GetLibraryVersionString",
          library + "SetUserMallocFunction", library + "SetUserFreeFunction", session + "SetDefaultConfig",
          session + "CalculateWorkSize", session + "Create", session + "Destroy", session + "EnableMember",
          session + "IsEnabledMember", session + "SetLanguage", session + "GetLanguage"));
}

TEST(LoadedPlugin, AnswersWithoutABridge) {
  const LoadedPlugin plugin;
  EXPECT_EQ(plugin.call<std::uint32_t>("_IsInitialized"), 0U);
  const auto* banner = plugin.call<const char*>("_GetLibraryVersionString");
  const std::string text = banner, name = "ZEL Rtc SpeechToText/PCx64 Ver.0.1.20 Build:";
  ASSERT_EQ(text.substr(0, name.size()), name);
  ASSERT_EQ(text.size(), name.size() + std::strlen("Jan  1 2000 00:00:00\n")) << text;
  std::istringstream built(text.substr(name.size()));
  std::tm time = {};
  built >> std::get_time(&time, "%b %d %Y %H:%M:%S");
  EXPECT_TRUE(built && built.get() == '\n') << text;
  EXPECT_EQ(banner[-1], '\n');
  EXPECT_EQ(plugin.call<const char*>("_GetLibraryVersionString"), banner);

  struct {
    const char* version;
    std::uint32_t reserved, padding, behind;
  } config = {nullptr, 0, 0, 0xEEEEEEEE};
  plugin.call<void>("_SetDefaultConfig", static_cast<void*>(&config));
  EXPECT_STREQ(config.version, "0.1.20");
  EXPECT_EQ(config.reserved, 16U);
  EXPECT_EQ(config.behind, 0xEEEEEEEE);
  struct {
    std::uint16_t messages;
    std::uint32_t text_size, reserved, members, behind;
  } session = {0, 0, 0, 0, 0xEEEEEEEE};
  plugin.call<void>("Session_SetDefaultConfig", static_cast<void*>(&session));
  EXPECT_EQ(session.messages, 16);
  EXPECT_EQ(session.text_size, 1200U);
  EXPECT_EQ(session.reserved, 20000U);
  EXPECT_EQ(session.members, 16U);
  EXPECT_EQ(session.behind, 0xEEEEEEEE);
}

TEST(LoadedPlugin, EverythingElseFailsWithoutABridge) {
  const LoadedPlugin plugin;
  void* const none = nullptr;
  const char* const id = "alice";
  EXPECT_EQ(plugin.call<std::int32_t>("_CalculateWorkSize", none), -1);
  EXPECT_EQ(plugin.call<std::uint32_t>("_Initialize", none, none, 0), 0U);
  plugin.call<void>("_Finalize");
  plugin.call<void>("_SetUserMallocFunction", none, none);
  plugin.call<void>("_SetUserFreeFunction", none, none);
  EXPECT_EQ(plugin.call<std::int32_t>("Session_CalculateWorkSize", none), -1);
  EXPECT_EQ(plugin.call<void*>("Session_Create", none, none, 0), nullptr);
  EXPECT_EQ(plugin.call<std::uint32_t>("Session_Destroy", none), 0U);
  EXPECT_EQ(plugin.call<std::uint32_t>("Session_EnableMember", none, id, 1U), 0U);
  EXPECT_EQ(plugin.call<std::uint32_t>("Session_IsEnabledMember", none, id), 0U);
  EXPECT_EQ(plugin.call<std::uint32_t>("Session_SetLanguage", none, id, 1U), 0U);
  EXPECT_EQ(plugin.call<std::int32_t>("Session_GetLanguage", none, id), -1);
  EXPECT_EQ(plugin.call<std::uint32_t>("_IsInitialized"), 0U);
}

}  // namespace
