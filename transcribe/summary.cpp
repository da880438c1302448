#include "summary.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "json_text.h"

namespace zel::transcribe {
namespace {

using host::MemberLedger;

std::string format_counts(const MemberLedger& ledger, double audio_seconds) {
  char text[160];
  std::snprintf(text, sizeof text, "%llu utterances posted, %llu answered, %llu failed; %.1f s of audio",
                static_cast<unsigned long long>(ledger.posted), static_cast<unsigned long long>(ledger.delivered),
                static_cast<unsigned long long>(ledger.unheard()), audio_seconds);
  return text;
}

// Names and values in their order.
nlohmann::ordered_json stats_of(const MemberLedger& ledger) {
  nlohmann::ordered_json stats;
  for (const auto& [name, count] : host::kLedgerCounts)
    stats[name] = ledger.*count;
  for (std::size_t i = 0; i < ledger.failures.size(); ++i) {
    if (ledger.failures[i] > 0) stats[std::string(host::kFailureReports[i])] = ledger.failures[i];
  }
  return stats;
}

}  // namespace

bool succeeded(const Summary& summary) {
  return std::all_of(summary.members.begin(), summary.members.end(), [](const MemberSummary& member) {
    return member.ledger.unheard() == 0 && member.source_error.empty();
  });
}

std::string format_summary(const Summary& summary) {
  std::string text = summary.interrupted ? "interrupted\n" : "";
  MemberLedger total;
  double audio_seconds = 0;
  for (const MemberSummary& member : summary.members) {
    text += printable(member.ledger.client_id) + ": " + format_counts(member.ledger, member.audio_seconds) + "\n";
    if (!member.source_error.empty()) text += "  audio ended early: " + member.source_error + "\n";
    total += member.ledger;
    audio_seconds += member.audio_seconds;
  }
  char wall[40];
  std::snprintf(wall, sizeof wall, " in %.1f s\n", summary.wall_seconds);
  text += "total: " + format_counts(total, audio_seconds) + wall;
  for (const auto& [message, times] : summary.reports)
    text += "  " + std::to_string(times) + " x " + message + "\n";
  return text;
}

std::string format_stats(const Summary& summary, Format format) {
  auto all = nlohmann::ordered_json::array();
  std::string text;
  for (const MemberSummary& member : summary.members) {
    const auto stats = stats_of(member.ledger);
    text += printable(member.ledger.client_id) + ":";
    for (const auto& [name, value] : stats.items())
      text += " " + name + "=" + value.dump();
    text += "\n";
    all.push_back({{"member", member.ledger.client_id}, {"member_id", member.ledger.member_id}});
    all.back().update(stats);
  }
  if (format == Format::kText) return text;
  return nlohmann::ordered_json{{"stats", all}}.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) +
         "\n";
}

}  // namespace zel::transcribe
