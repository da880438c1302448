#include "utterance_ledger.h"

namespace zel::transcribe {

std::vector<std::optional<Stretch>> UtteranceLedger::resolve(std::size_t texts, std::uint64_t answered) {
  std::vector<std::optional<Stretch>> stretches(texts);
  const bool certain = answered - resolved_ == texts;
  for (std::size_t i = 0; resolved_ < answered && !open_.empty(); ++resolved_, ++i) {
    if (certain) stretches[i] = open_.front();
    open_.pop_front();
  }
  resolved_ = answered;
  return stretches;
}

}  // namespace zel::transcribe
