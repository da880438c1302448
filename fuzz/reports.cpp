// The host's formatting of reports against the C library's.
//
// 1. Any format with any arguments gives the text that the C library's conversions of 64-bit arguments give, cut to the
//    destination; what is no known conversion, or finds no argument left, stands as it is.
// 2. Only the argument of a "%s" is taken for a string.
// 3. A report reaches the sink cut to 1023 bytes, its identifier empty or one letter and ten digits.
#include "reports.h"

#include <cinttypes>
#include <memory>
#include <vector>

#include "fuzz.h"

namespace {

constexpr std::pair<std::string_view, const char*> kNumbers[] = {
    {"%u", "%" PRIu64}, {"%lu", "%" PRIu64}, {"%08x", "%08" PRIx64}};

struct Report {
  std::vector<std::uint64_t> arguments;
  std::vector<std::unique_ptr<char[]>> strings;  // those of "%s", at their exact sizes
  std::string text;
};

std::string Print(const char* format, std::uint64_t argument) {
  char digits[24];
  std::snprintf(digits, sizeof digits, format, argument);
  return digits;
}

std::string AddString(Report& report, fuzz::Input& input) {
  if (input.below(8) == 0) {
    report.arguments.push_back(0);
    return "(null)";
  }
  std::string text(input.take(input.below(64)));
  text = text.c_str();  // up to its first NUL
  const auto& copy = report.strings.emplace_back(std::make_unique<char[]>(text.size() + 1));
  std::copy_n(text.c_str(), text.size() + 1, copy.get());
  report.arguments.push_back(reinterpret_cast<std::uintptr_t>(copy.get()));
  return text;
}

// `count` arguments as the format wants them, any numbers where it wants none, and what should come out.
Report Expect(std::string_view format, std::size_t count, fuzz::Input& input) {
  Report report;
  while (!format.empty()) {
    const bool left = report.arguments.size() < count;
    const auto* number = std::find_if(std::begin(kNumbers), std::end(kNumbers),
                                      [&](const auto& entry) { return format.starts_with(entry.first); });
    std::size_t used = 1;
    if (format.starts_with("%%")) {
      report.text += '%';
      used = 2;
    } else if (left && format.starts_with("%s")) {
      report.text += AddString(report, input);
      used = 2;
    } else if (left && number != std::end(kNumbers)) {
      report.arguments.push_back(input.number());
      report.text += Print(number->second, report.arguments.back());
      used = number->first.size();
    } else {
      report.text += format[0];
    }
    format.remove_prefix(used);
  }
  while (report.arguments.size() < count)
    report.arguments.push_back(input.number());
  return report;
}

void CheckIdentifier(std::string_view identifier, std::string_view message) {
  if (identifier.empty()) return;
  FUZZ_CHECK(identifier.size() == 11 && message.starts_with(identifier));
  FUZZ_CHECK((identifier[0] == 'E' || identifier[0] == 'W') &&
             identifier.find_first_not_of("0123456789", 1) == std::string_view::npos);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::size_t capacity = input.below(2000);
  const std::size_t count = input.below(5);
  const std::string format = std::string(input.take(input.below(1500))).c_str();
  const Report expected = Expect(format, count, input);

  std::vector<char> destination(capacity);
  const std::size_t written = zel::host::format_report(destination, format.c_str(), expected.arguments);
  FUZZ_CHECK(std::string_view(destination.data(), written) == std::string_view(expected.text).substr(0, capacity));

  int seen = 0;
  zel::host::set_report_sink([&](const zel::host::Report& report) {
    ++seen;
    FUZZ_CHECK(report.message == std::string_view(expected.text).substr(0, 1023));
    CheckIdentifier(report.identifier, report.message);
  });
  zel::host::send_report(ZEL_ERR_LEVEL_ERROR, 0, format.c_str(), expected.arguments);
  zel::host::set_report_sink({});
  FUZZ_CHECK(seen == 1);
  return 0;
}
