#include "reports.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <memory>
#include <mutex>
#include <utility>

#include "sync.h"

namespace zel::host {
namespace {

constexpr std::size_t kMaxMessage = 1023;
constexpr std::size_t kIdentifierLength = 11;

thread_local const ReportWatch* innermost_watch = nullptr;

struct SinkHolder {
  WordLock lock;
  std::shared_ptr<const ReportSink> sink;  // null: the default
};

// Never destroyed: threads may report until the process ends.
SinkHolder& sink_holder() {
  static auto& holder = *new SinkHolder;
  return holder;
}

void print(const Report& report) {
  std::array<char, kMaxMessage + 64> line;
  const char* level = report.level == ZEL_ERR_LEVEL_ERROR ? "error" : "warning";
  const int length = static_cast<int>(report.message.size());
  if (report.code == 0) {
    std::snprintf(line.data(), line.size(), "speech-to-text %s: %.*s", level, length, report.message.data());
  } else {
    std::snprintf(line.data(), line.size(), "speech-to-text %s: %.*s (code %d)", level, length, report.message.data(),
                  static_cast<int>(report.code));
  }
  // What a service answers ends up here: one report stays one line, whatever it holds.
  char* end = std::find(line.data(), line.data() + line.size() - 2, '\0');
  std::replace_if(
      line.data(), end, [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 127; }, '?');
  *end++ = '\n';
  std::fwrite(line.data(), 1, static_cast<std::size_t>(end - line.data()), stderr);
}

std::string_view identifier_of(std::string_view message) {
  const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
  const auto head = message.substr(0, kIdentifierLength);
  const bool sound = head.size() == kIdentifierLength && (head[0] == 'E' || head[0] == 'W') &&
                     std::all_of(head.begin() + 1, head.end(), is_digit) &&
                     (message.size() == head.size() || message[head.size()] == ':');
  return sound ? head : std::string_view{};
}

// Appends to a span and forgets what no longer fits.
class Writer {
 public:
  explicit Writer(std::span<char> destination) : destination_(destination) {}
  void put(std::string_view text) {
    const std::size_t count = std::min(text.size(), destination_.size() - used_);
    std::copy_n(text.data(), count, destination_.data() + used_);
    used_ += count;
  }
  void put_number(std::uint64_t number, int base, std::size_t min_digits) {
    std::array<char, 20> digits;
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), number, base);
    const auto count = static_cast<std::size_t>(result.ptr - digits.data());
    if (count < min_digits) put(std::string_view("00000000").substr(0, min_digits - count));
    put({digits.data(), count});
  }
  std::size_t used() const { return used_; }

 private:
  std::span<char> destination_;
  std::size_t used_ = 0;
};

enum class Conversion { kPercent, kString, kNumber, kHex };
constexpr std::pair<std::string_view, Conversion> kConversions[] = {{"%%", Conversion::kPercent},
                                                                    {"%s", Conversion::kString},
                                                                    {"%u", Conversion::kNumber},
                                                                    {"%lu", Conversion::kNumber},
                                                                    {"%08x", Conversion::kHex}};

void put_argument(Writer& out, Conversion conversion, std::uint64_t argument) {
  switch (conversion) {
    case Conversion::kString: {
      const auto* text = reinterpret_cast<const char*>(static_cast<std::uintptr_t>(argument));
      return out.put(text != nullptr ? std::string_view(text) : "(null)");
    }
    case Conversion::kNumber:
      return out.put_number(argument, 10, 1);
    case Conversion::kHex:
      return out.put_number(argument, 16, 8);
    case Conversion::kPercent:
      return out.put("%");
  }
}

}  // namespace

std::size_t format_report(std::span<char> destination, const char* format,
                          std::span<const std::uint64_t> arguments) noexcept {
  Writer out(destination);
  std::string_view rest = format != nullptr ? format : "";
  while (!rest.empty()) {
    const auto* known = std::find_if(std::begin(kConversions), std::end(kConversions),
                                     [rest](const auto& entry) { return rest.starts_with(entry.first); });
    const bool takes_argument = known != std::end(kConversions) && known->second != Conversion::kPercent;
    if (known == std::end(kConversions) || (takes_argument && arguments.empty())) {
      const std::size_t plain = std::min(rest.find('%', 1), rest.size());
      out.put(rest.substr(0, plain));
      rest.remove_prefix(plain);
      continue;
    }
    put_argument(out, known->second, takes_argument ? arguments.front() : 0);
    if (takes_argument) arguments = arguments.subspan(1);
    rest.remove_prefix(known->first.size());
  }
  return out.used();
}

void send_report(std::uint32_t level, std::int32_t code, const char* format,
                 std::span<const std::uint64_t> arguments) noexcept {
  std::array<char, kMaxMessage> text;
  const std::string_view message(text.data(), format_report(text, format, arguments));
  const Report report{level, code, identifier_of(message), message};
  try {
    for (const ReportWatch* watch = innermost_watch; watch != nullptr; watch = watch->outer())
      watch->see(report);
  } catch (...) {  // a report changes nothing for the code that reports
  }
  try {
    std::shared_ptr<const ReportSink> sink;
    {
      std::lock_guard hold(sink_holder().lock);
      sink = sink_holder().sink;
    }
    if (sink != nullptr) {
      (*sink)(report);
    } else {
      print(report);
    }
  } catch (...) {
  }
}

void set_report_sink(ReportSink sink) {
  auto fresh = sink ? std::make_shared<const ReportSink>(std::move(sink)) : nullptr;
  std::lock_guard hold(sink_holder().lock);
  sink_holder().sink.swap(fresh);
}

ReportWatch::ReportWatch(ReportSink see) : see_(std::move(see)), outer_(std::exchange(innermost_watch, this)) {}

ReportWatch::~ReportWatch() {
  innermost_watch = outer_;
}

}  // namespace zel::host
