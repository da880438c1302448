#include "summary.h"

#include <algorithm>
#include <cstdio>

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
std::vector<std::pair<std::string, std::uint64_t>> stats_of(const MemberLedger& ledger) {
  std::vector<std::pair<std::string, std::uint64_t>> stats;
  stats.reserve(host::kLedgerCounts.size() + ledger.failures.size());
  for (const auto& [name, count] : host::kLedgerCounts)
    stats.emplace_back(name, ledger.*count);
  for (std::size_t i = 0; i < ledger.failures.size(); ++i) {
    if (ledger.failures[i] > 0) stats.emplace_back(host::kFailureReports[i], ledger.failures[i]);
  }
  return stats;
}

std::string stats_line(const MemberLedger& ledger) {
  std::string line = printable(ledger.client_id) + ":";
  for (const auto& [name, value] : stats_of(ledger))
    line += " " + name + "=" + std::to_string(value);
  return line + "\n";
}

std::string stats_object(const MemberLedger& ledger) {
  JsonMembers members = {{"member", ledger.client_id}, {"member_id", std::uint64_t{ledger.member_id}}};
  for (const auto& [name, value] : stats_of(ledger))
    members.emplace_back(name, value);
  return json_object(members);
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
  std::string lines, objects;
  for (const MemberSummary& member : summary.members) {
    lines += stats_line(member.ledger);
    if (!objects.empty()) objects += ',';
    objects += stats_object(member.ledger);
  }
  return format == Format::kText ? lines : "{\"stats\":[" + objects + "]}\n";
}

}  // namespace zel::transcribe
