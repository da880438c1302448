// The packets of the fixed inputs, cut into utterances of five seconds.
#pragma once

#include <string>
#include <vector>

namespace bench {

using Packet = std::vector<unsigned char>;
using Utterance = std::vector<Packet>;

inline constexpr std::size_t kUtterancePackets = 125;

struct Speech {
  std::string name;
  std::vector<Utterance> utterances;
  std::int64_t packets() const { return static_cast<std::int64_t>(utterances.size() * kUtterancePackets); }
};

// "speech": real packets; "full256": the longest packets there are.
const std::vector<Speech>& speeches();

}  // namespace bench
