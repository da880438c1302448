// Collects the plug-in's reports for the summary, without the access token that a service may have put into them.
//
// Thread rule: collect may be called from any thread; while an object lives, it is the report sink of the process.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "reports.h"

namespace zel::transcribe {

class FailureLog {
 public:
  /** `verbose`: prints every report as it comes. */
  FailureLog(bool verbose, std::string token);
  ~FailureLog();
  FailureLog(const FailureLog&) = delete;
  FailureLog& operator=(const FailureLog&) = delete;

  /** How often each message came, by message. */
  std::map<std::string, std::uint64_t> counts() const;

 private:
  void collect(const host::Report& report);

  bool verbose_;
  std::string token_;
  mutable std::mutex mutex_;
  std::map<std::string, std::uint64_t> counts_;
};

}  // namespace zel::transcribe
