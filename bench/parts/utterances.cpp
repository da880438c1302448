#include "utterances.h"

#include "speech_packets.h"

namespace bench_parts {
namespace {

// Whole utterances only.
std::vector<Utterance> Cut(const std::vector<Packet>& packets) {
  std::vector<Utterance> utterances;
  for (auto at = packets.begin(); packets.end() - at >= std::ptrdiff_t{kUtterancePackets}; at += kUtterancePackets)
    utterances.emplace_back(at, at + kUtterancePackets);
  return utterances;
}

}  // namespace

const std::vector<Speech>& Speeches() {
  static const std::vector<Speech> speeches = {
      {"speech", Cut(bench_kit::SpeechPackets())},
      {"full256", Cut(bench_kit::FullPackets(4 * kUtterancePackets))},
  };
  return speeches;
}

}  // namespace bench_parts
