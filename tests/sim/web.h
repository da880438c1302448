// The web as the executor sees it: a stand-in for the WinHTTP operations, defined in this program, so that the
// archive's own are not linked. It checks how they are used and what is posted, and answers, stalls and fails by seed.
#pragma once

#include <string>
#include <string_view>

#include "random.h"
#include "seat.h"

namespace sim {

// A worker made a report.
void WebReport(const std::string& text);
// A worker waits for its next request, or ends: its exchange must be over, with nothing left open.
void WebExchangeOver(const Seat& seat);

// What the service answers.
struct Reply {
  std::string body = {};
  Fate fate = Fate::kFailed;
  std::string text = {};    // to be delivered
  std::string report = {};  // that the update makes of it
};
// The longest body that the executor takes.
inline constexpr std::size_t kMaxReply = 1231;
Reply MakeReply(Random& random, bool plain, std::uint32_t serial);

// What is wrong with `bytes` as the one Ogg Opus stream of that utterance (RFC 3533, RFC 7845), or nothing.
std::string JudgeStream(std::string_view bytes, const Utterance& utterance);

}  // namespace sim
