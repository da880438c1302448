#include "utterances.h"

#include "speech_packets.h"

namespace bench {
namespace {

// Whole utterances only.
std::vector<Utterance> cut(const std::vector<Packet>& packets) {
  std::vector<Utterance> utterances;
  for (auto at = packets.begin(); packets.end() - at >= std::ptrdiff_t{kUtterancePackets}; at += kUtterancePackets)
    utterances.emplace_back(at, at + kUtterancePackets);
  return utterances;
}

}  // namespace

const std::vector<Speech>& speeches() {
  static const std::vector<Speech> speeches = {
      {"speech", cut(speech_packets())},
      {"full256", cut(full_packets(4 * kUtterancePackets))},
  };
  return speeches;
}

}  // namespace bench
