// Where the plug-in's reports go: to the watches of the reporting thread, then to the application's sink.
//
// Thread rule: everything here may be called from any thread. Reporting allocates nothing.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>

#include "zel_base_rtc_bridge.h"

namespace zel::host {

/** One report. The views are valid during the call. */
struct Report {
  std::uint32_t level = ZEL_ERR_LEVEL_ERROR;  ///< ZEL_ERR_LEVEL_ERROR or ZEL_ERR_LEVEL_WARNING
  std::int32_t code = 0;                      ///< negative for a report that carries a code, otherwise 0
  std::string_view identifier;                ///< "E" or "W" and ten digits; empty for a text that begins otherwise
  std::string_view message;                   ///< the whole report, identifier included; cut after 1023 bytes
};

/** Receives the reports, on the reporting thread, from several threads at once. Must not call the plug-in: it may hold
 * its locks. What it throws is swallowed. */
using ReportSink = std::function<void(const Report&)>;

/** Replaces the sink; an empty one brings back the default, which prints one line to standard error. A report under way
 * may still reach the old one. */
void set_report_sink(ReportSink sink);

/** While it lives, sees the reports of its own thread, before the sink does. Nests; destroyed in reverse order. */
class ReportWatch {
 public:
  explicit ReportWatch(ReportSink see);
  ~ReportWatch();
  ReportWatch(const ReportWatch&) = delete;
  ReportWatch& operator=(const ReportWatch&) = delete;

  const ReportWatch* outer() const noexcept { return outer_; }
  void see(const Report& report) const { see_(report); }

 private:
  ReportSink see_;
  const ReportWatch* outer_;
};

/** Formats `format` into `destination`, cut to its size: "%s" (null prints as "(null)"), "%u", "%lu" and "%08x", each
 * taking one 64-bit argument whatever its width in C, and "%%". Anything else stands as it is, and so does a conversion
 * that finds no argument left. Not terminated. Result: bytes written. */
std::size_t format_report(std::span<char> destination, const char* format,
                          std::span<const std::uint64_t> arguments) noexcept;

/** Sends a report to watches and sink; `format` may be null. */
void send_report(std::uint32_t level, std::int32_t code, const char* format,
                 std::span<const std::uint64_t> arguments) noexcept;

}  // namespace zel::host
