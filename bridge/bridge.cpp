#include "bridge.h"

#include "zel_rtc_speech_to_text.h"

void zelString_Format(char* destination, uint64_t capacity, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  zelBridge_Table().string_format(destination, capacity, format, arguments);
  va_end(arguments);
}

void zelRtcSpeechToText_SetBaseRtcBridgeInterface(const ZelBaseRtcBridgeInterface* bridge_interface) {
  if (bridge_interface == nullptr) return;
  // A mismatch is told to the host that is installed now; the very first host hears of its own.
  const BridgeTable* told = zelBridge_IsInstalled() ? zelBridge_Installed() : bridge_interface->table;
  if (bridge_interface->version != ZEL_BASE_RTC_BRIDGE_VERSION && told != nullptr) {
    told->err_notify2(ZEL_ERR_LEVEL_ERROR,
                      "E2022111826:Mismatch between ZEL Base bridge interface version and linked ZEL Base bridge "
                      "interface version. (Interface version is %u, but the specified version is %u.)",
                      ZEL_BASE_RTC_BRIDGE_VERSION, bridge_interface->version);
  }
  zel_bridge_interface.version = bridge_interface->version;
  __atomic_store_n(&zel_bridge_interface.table, bridge_interface->table, __ATOMIC_RELEASE);
}
