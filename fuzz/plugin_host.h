// The reference host's services under plug-in modules, and what the modules report to it.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "bridge_services.h"
#include "reports.h"
#include "zel_rtc_speech_to_text.h"

namespace fuzz {

// One for the whole run; reports are collected until they are taken.
class PluginHost {
 public:
  PluginHost() {
    zelRtcSpeechToText_SetBaseRtcBridgeInterface(&zel::host::bridge_interface());
    zel::host::set_report_sink([this](const zel::host::Report& report) { reports_.emplace_back(report.message); });
  }
  PluginHost(const PluginHost&) = delete;
  PluginHost& operator=(const PluginHost&) = delete;
  ~PluginHost() { zel::host::set_report_sink({}); }

  std::vector<std::string> take_reports() { return std::exchange(reports_, {}); }

 private:
  std::vector<std::string> reports_;
};

}  // namespace fuzz
