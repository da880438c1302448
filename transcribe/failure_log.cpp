#include "failure_log.h"

#include <cstdio>
#include <utility>

#include "json_text.h"

namespace zel::transcribe {
namespace {

constexpr std::size_t kMaxMessages = 50;  // a service may put something different into every one
constexpr const char* kOthers = "other reports";

}  // namespace

FailureLog::FailureLog(bool verbose, std::string token) : verbose_(verbose), token_(std::move(token)) {
  host::set_report_sink([this](const host::Report& report) { collect(report); });
}

FailureLog::~FailureLog() {
  host::set_report_sink({});
}

void FailureLog::collect(const host::Report& report) {
  const std::string message = printable(hide_token(report.message, token_));
  std::lock_guard hold(mutex_);
  if (verbose_) std::fprintf(stderr, "%s\n", message.c_str());
  const bool known = counts_.contains(message) || counts_.size() < kMaxMessages;
  ++counts_[known ? message : kOthers];
}

std::map<std::string, std::uint64_t> FailureLog::counts() const {
  std::lock_guard hold(mutex_);
  return counts_;
}

}  // namespace zel::transcribe
