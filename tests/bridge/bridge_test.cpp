#include "bridge.h"

#include "scripted_host.h"
#include "zel_rtc_speech_to_text.h"

namespace {

const Reports kMismatch{
    "0 E2022111826:Mismatch between ZEL Base bridge interface version and linked ZEL Base bridge "
    "interface version. (Interface version is %u, but the specified version is %u.)|539165955|7"};

TEST(Bridge, TellsTheInstalledHostOfAForeignVersionAndInstallsAllTheSame) {
  ScriptedHost host;
  EXPECT_TRUE(host.calls.empty()) << "the right version installs silently";
  static int reported;
  reported = 0;
  BridgeTable other = ScriptedHost::Table();
  other.err_notify2 = [](uint32_t, const char*, uint64_t, uint64_t) { ++reported; };
  const ZelBaseRtcBridgeInterface nothing = {7, nullptr}, own = {7, &ScriptedHost::Table()}, foreign = {7, &other},
                                  back = {ZEL_BASE_RTC_BRIDGE_VERSION, &ScriptedHost::Table()};
  zel_bridge_interface = {};
  zelRtcSpeechToText_SetBaseRtcBridgeInterface(&nothing);
  EXPECT_EQ(zel_bridge_interface.version, 7u);
  EXPECT_FALSE(zelBridge_IsInstalled());
  zelRtcSpeechToText_SetBaseRtcBridgeInterface(&own);
  EXPECT_EQ(host.TakeReports(), kMismatch) << "the very first host hears of its own version";
  zelRtcSpeechToText_SetBaseRtcBridgeInterface(&foreign);
  EXPECT_EQ(host.TakeReports(), kMismatch);
  EXPECT_EQ(reported, 0);
  zelErr_Notify2(0, "", 0, 0);
  EXPECT_EQ(reported, 1) << "the next call goes to the new table";
  zelRtcSpeechToText_SetBaseRtcBridgeInterface(&back);
  EXPECT_EQ(reported, 1);
}

}  // namespace
