#include "summary.h"

#include <algorithm>
#include <cstdio>

#include "json_text.h"

namespace zel::transcribe {
namespace {

struct Counts {
  std::uint64_t posted = 0;
  std::uint64_t answered = 0;  // with a text, or with the word that there is none
  std::uint64_t failed = 0;    // or not known to have been answered

  Counts& operator+=(const Counts& other) {
    posted += other.posted;
    answered += other.answered;
    failed += other.failed;
    return *this;
  }
};

Counts count(const host::MemberRecord& record) {
  return {record.posted, record.delivered + record.empty,
          record.failed + record.unexplained + record.abandoned + record.dropped};
}

std::string format_counts(const Counts& counts, double audio_seconds) {
  char text[160];
  std::snprintf(text, sizeof text, "%llu utterances posted, %llu answered, %llu failed; %.1f s of audio",
                static_cast<unsigned long long>(counts.posted), static_cast<unsigned long long>(counts.answered),
                static_cast<unsigned long long>(counts.failed), audio_seconds);
  return text;
}

}  // namespace

bool succeeded(const Summary& summary) {
  return std::all_of(summary.members.begin(), summary.members.end(), [](const MemberSummary& member) {
    return count(member.record).failed == 0 && member.source_error.empty();
  });
}

std::string format_summary(const Summary& summary) {
  std::string text = summary.interrupted ? "interrupted\n" : "";
  Counts total;
  double audio_seconds = 0;
  for (const MemberSummary& member : summary.members) {
    const Counts counts = count(member.record);
    text += printable(member.record.client_id) + ": " + format_counts(counts, member.audio_seconds) + "\n";
    if (!member.source_error.empty()) text += "  audio ended early: " + member.source_error + "\n";
    total += counts;
    audio_seconds += member.audio_seconds;
  }
  char wall[40];
  std::snprintf(wall, sizeof wall, " in %.1f s\n", summary.wall_seconds);
  text += "total: " + format_counts(total, audio_seconds) + wall;
  for (const auto& [message, times] : summary.reports)
    text += "  " + std::to_string(times) + " x " + message + "\n";
  return text;
}

}  // namespace zel::transcribe
