#include "reports.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <span>

#include "ledger.h"
#include "web.h"
#include "world.h"

namespace sim {

namespace {

constexpr std::string_view kReports[] = {
#include "reports_table.inc"
};

constexpr std::string_view kNoMemoryRefusals[] = {"E2022101105", "E2022102102"};
constexpr std::string_view kNotInitializedRefusals[] = {"E2022101103", "E2022102100", "E2022102105"};

bool IsOneOf(std::string_view identifier, std::span<const std::string_view> list) {
  return std::ranges::find(list, identifier) != list.end();
}

// Tells the report to whoever can say whether it is due.
void Route(const std::string& text) {
  Note("reports", text);
  ++ReportTally()[text.substr(0, 11)];
  Caller& caller = Me();
  if (caller.role == Role::kWorker) return WebReport(text);
  if (caller.updating) {
    SIM_CHECK(caller.seat != nullptr, "a report of no recognizer: %s", text.c_str());
    return caller.seat->TakeUpdateReport(text);
  }
  // A page that found no room: only where the ring buffer gave less than was asked for.
  if (text == ReportText("E2022103100") && caller.seat != nullptr && caller.seat->TakeShortage()) return;
  caller.reports.push_back(text);
}

}  // namespace

std::string_view ReportText(std::string_view identifier) {
  const auto* found = std::ranges::find_if(kReports, [&](std::string_view r) { return r.starts_with(identifier); });
  SIM_CHECK(found != std::end(kReports) && identifier.size() == 11, "no such report: %s",
            std::string(identifier).c_str());
  return *found;
}

void TakeMessage(std::uint32_t level, const char* format, std::initializer_list<std::uint64_t> arguments) {
  std::string text = format;
  SIM_CHECK(text.size() > 12 && text == ReportText(text.substr(0, 11)), "unknown message: %s", format);
  SIM_CHECK(level == (format[0] == 'W' ? 1u : 0u), "level %u: %s", level, format);
  for (const std::uint64_t argument : arguments) {
    const char* conversion = std::strchr(format, '%');
    format = conversion != nullptr ? std::strpbrk(conversion, "sux") : "";
    text += '|';
    if (*format == 's') text += reinterpret_cast<const char*>(argument);
    if (*format == 'u') text += std::to_string(argument);  // addresses stay out, and what has no conversion
  }
  SIM_CHECK(std::strchr(format, '%') == nullptr, "too few arguments: %s", text.c_str());
  Route(text);
}

void TakeRefusal(std::uint32_t level, const char* identifier, std::int32_t code) {
  SIM_CHECK(ReportText(identifier) == identifier, "not a refusal: %s", identifier);
  const int expected = IsOneOf(identifier, kNoMemoryRefusals)         ? -3
                       : IsOneOf(identifier, kNotInitializedRefusals) ? -6
                                                                      : -2;
  SIM_CHECK(level == 0 && code == expected, "%s with level %u and code %d", identifier, level, code);
  Route(identifier);
}

void ExpectReports(std::initializer_list<std::string> expected) {
  std::vector<std::string>& made = Me().reports;
  SIM_CHECK(std::ranges::equal(made, expected), "expected %zu reports%s%s, found %zu%s%s", expected.size(),
            expected.size() > 0 ? ", first " : "", expected.size() > 0 ? expected.begin()->c_str() : "", made.size(),
            made.empty() ? "" : ", first ", made.empty() ? "" : made.front().c_str());
  made.clear();
}

}  // namespace sim

// The reply reader's two complaints go to standard output; nothing else may.
extern "C" int __wrap_puts(const char* text) {
  const std::string_view complaint = text;
  SIM_CHECK(sim::Me().updating && (complaint == "UNKOWN TYPE" || complaint == "INVALID TYPE"), "printed: %s", text);
  sim::Note("prints", complaint);
  ++sim::ReportTally()[text];
  return 1;
}
