// The reports of the plug-in: checked against the table of all that there are, then given to whom they concern.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "zel_base_rtc_bridge.h"

namespace sim {

// Puts the checking services into `table`, in front of the reference host's, which format the reports.
void WatchReports(BridgeTable& table);

// The report with that identifier and those arguments: numbers, or pointers to text. Fails the run when there is none.
std::string ReportText(std::string_view identifier, std::initializer_list<std::uint64_t> arguments = {});
inline std::uint64_t Argument(const char* text) {
  return reinterpret_cast<std::uintptr_t>(text);
}

// The current call into the plug-in must have made no report, or exactly this one.
void ExpectReport(const std::string& expected = "");

}  // namespace sim
