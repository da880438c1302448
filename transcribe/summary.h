// What is said at the end: one line per member, a total, and why utterances failed.
//
// Thread rule: plain values.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "ledger.h"
#include "options.h"

namespace zel::transcribe {

struct MemberSummary {
  host::MemberLedger ledger;
  double audio_seconds = 0;
  std::string source_error;  ///< why its audio ended before its time; empty when it did not
};

struct Summary {
  std::vector<MemberSummary> members;
  double wall_seconds = 0;
  bool interrupted = false;
  std::map<std::string, std::uint64_t> reports;  ///< the plug-in's, by message
};

/** Every utterance was answered and all audio was read. */
bool succeeded(const Summary& summary);
/** Several lines. */
std::string format_summary(const Summary& summary);
/** The members' ledgers: a line each, or one JSON object. */
std::string format_stats(const Summary& summary, Format format);

}  // namespace zel::transcribe
