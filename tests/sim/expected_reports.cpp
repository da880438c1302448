#include "expected_reports.h"

#include <algorithm>
#include <span>
#include <vector>

#include "bridge_services.h"
#include "reports.h"
#include "seat.h"
#include "web.h"
#include "world.h"

namespace sim {

namespace {

constexpr std::string_view kReports[] = {
#include "reports_table.inc"
};
std::string_view FormatOf(std::string_view identifier) {
  const auto* found = std::ranges::find_if(kReports, [&](std::string_view r) { return r.starts_with(identifier); });
  SIM_CHECK(found != std::end(kReports) && identifier.size() == 11, "no such report: %.11s", identifier.data());
  return *found;
}

void Check(std::uint32_t level, std::string_view format) {
  SIM_CHECK(format == FormatOf(format.substr(0, 11)) && level == (format[0] == 'W' ? 1u : 0u), "unknown, level %u: %s",
            level, format.data());
}

// Tells the report to whoever can say whether it is due.
void Route(const std::string& text) {
  Note("reports", text.substr(0, text.find("0x")));  // addresses stay out
  Caller& caller = Me();
  if (caller.worker) return WebReport(text);
  if (caller.updating) {
    SIM_CHECK(caller.seat != nullptr, "a report of no recognizer: %s", text.c_str());
    return caller.seat->TakeUpdateReport(text);
  }
  // A page that found no room: only where the ring buffer gave less than was asked for.
  if (text == FormatOf("E2022103100") && caller.seat != nullptr && caller.seat->TakeShortage()) return;
  caller.reports.push_back(text);
}

}  // namespace

void WatchReports(BridgeTable& table) {
  static const BridgeTable& host = *zel::host::bridge_interface().table;
  zel::host::set_report_sink([](const zel::host::Report& report) { Route(std::string(report.message)); });
  table.err_notify = [](std::uint32_t level, const char* text) {
    Check(level, text);
    host.err_notify(level, text);
  };
  table.err_notify1 = [](std::uint32_t level, const char* format, std::uint64_t a) {
    Check(level, format);
    host.err_notify1(level, format, a);
  };
  table.err_notify2 = [](std::uint32_t level, const char* format, std::uint64_t a, std::uint64_t b) {
    Check(level, format);
    host.err_notify2(level, format, a, b);
  };
  table.err_notify_param = [](std::uint32_t level, const char* identifier, std::int32_t code) {
    Check(level, identifier);
    return host.err_notify_param(level, identifier, code);
  };
}

std::string ReportText(std::string_view identifier, std::initializer_list<std::uint64_t> arguments) {
  char text[1024];
  const std::span values(arguments.begin(), arguments.size());
  return {text, zel::host::format_report(text, FormatOf(identifier).data(), values)};
}

void ExpectReport(const std::string& expected) {
  std::vector<std::string>& made = Me().reports;
  const std::size_t due = expected.empty() ? 0 : 1;
  SIM_CHECK(made.size() == due && (due == 0 || made[0] == expected), "%zu reports, first \"%s\", instead of \"%s\"",
            made.size(), made.empty() ? "" : made.front().c_str(), expected.c_str());
  made.clear();
}

}  // namespace sim

// The reply reader's two complaints go to standard output; nothing else may.
extern "C" int __wrap_puts(const char* text) {
  const std::string_view complaint = text;
  const bool may = sim::the_world != nullptr && sim::Me().updating;
  SIM_CHECK(may && (complaint == "UNKOWN TYPE" || complaint == "INVALID TYPE"), "printed: %s", text);
  sim::Note("prints", complaint);
  return 1;
}
