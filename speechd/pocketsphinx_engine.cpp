#include "pocketsphinx_engine.h"

#include <pocketsphinx.h>
#include <sphinxbase/err.h>

#include <algorithm>
#include <cstddef>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace zel::speechd {
namespace {

using Samples = std::span<const std::int16_t>;
using Clock = std::chrono::steady_clock;

// Longest stretch decoded at once, which bounds how long the engine cannot look at its deadline. Speech without a pause
// for so long is rare; music and noise are not, and they cost several times as much per second.
constexpr std::size_t kMaxPiece = std::size_t{10} * kSampleRate;
constexpr std::size_t kMinPiece = std::size_t{5} * kSampleRate;
constexpr std::size_t kQuietWindow = kSampleRate / 5;

// Where to end the piece at the beginning of `samples`: at its end when that is near, otherwise in the middle of the
// quietest window.
std::size_t piece_length(Samples samples) {
  if (samples.size() <= kMaxPiece) return samples.size();
  std::size_t best = kMaxPiece;
  double least = std::numeric_limits<double>::max();
  for (std::size_t from = kMinPiece; from + kQuietWindow <= kMaxPiece; from += kQuietWindow / 4) {
    double energy = 0;
    for (const std::int16_t sample : samples.subspan(from, kQuietWindow))
      energy += static_cast<double>(sample) * sample;
    if (energy >= least) continue;
    least = energy;
    best = from + kQuietWindow / 2;
  }
  return best;
}

struct ConfigFree {
  void operator()(cmd_ln_t* config) const { cmd_ln_free_r(config); }
};
struct DecoderFree {
  void operator()(ps_decoder_t* decoder) const { ps_free(decoder); }
};

class PocketSphinxEngine final : public Engine {
 public:
  explicit PocketSphinxEngine(const std::string& folder) {
    // Measured on read speech through the codec at five bit rates: the wide beam of the second pass avoids an eighth of
    // the word errors; the bounds on words, states and the second pass's vocabulary change nothing there, and make
    // music and babble, which would take longer than they last, two to six times cheaper.
    config_.reset(cmd_ln_init(nullptr, ps_args(), TRUE,                           //
                              "-hmm", (folder + "/en-us").c_str(),                //
                              "-lm", (folder + "/en-us.lm.bin").c_str(),          //
                              "-dict", (folder + "/cmudict-en-us.dict").c_str(),  //
                              "-maxwpf", "5", "-maxhmmpf", "5000",                //
                              "-fwdflatbeam", "1e-72", "-fwdflatsfwin", "10",     //
                              "-fwdflatefwid", "6",                               //
                              static_cast<const char*>(nullptr)));
    if (config_ != nullptr) decoder_.reset(ps_init(config_.get()));
    if (decoder_ == nullptr) throw std::runtime_error("cannot load the recognition model in " + folder);
  }

  Recognition recognize(Samples samples, Deadline deadline) override {
    Recognition result;
    double slowest = 0;  // seconds of work per sample
    while (!samples.empty()) {
      const Samples piece = samples.first(piece_length(samples));
      const auto begin = Clock::now();
      const auto expected = std::chrono::duration<double>(slowest * static_cast<double>(piece.size()));
      if (begin + std::chrono::duration_cast<Clock::duration>(expected) >= deadline) {
        result.complete = false;
        break;
      }
      append(result.text, decode(piece));
      const std::chrono::duration<double> spent = Clock::now() - begin;
      slowest = std::max(slowest, spent.count() / static_cast<double>(piece.size()));
      samples = samples.subspan(piece.size());
    }
    return result;
  }

 private:
  // Handing over the whole piece at once normalizes it by its own mean; starting a stream forgets the noise estimate
  // of the piece before. So a text depends on nothing but its own audio.
  std::string decode(Samples piece) {
    if (ps_start_stream(decoder_.get()) < 0 || ps_start_utt(decoder_.get()) < 0)
      throw std::runtime_error("the recognition engine refuses a new utterance");
    const int processed = ps_process_raw(decoder_.get(), piece.data(), piece.size(), FALSE, TRUE);
    const int ended = ps_end_utt(decoder_.get());
    if (processed < 0 || ended < 0) throw std::runtime_error("the recognition engine failed on an utterance");
    int32 score = 0;
    const char* words = ps_get_hyp(decoder_.get(), &score);
    return words != nullptr ? words : "";
  }

  static void append(std::string& text, const std::string& words) {
    if (!text.empty() && !words.empty()) text += ' ';
    text += words;
  }

  std::unique_ptr<cmd_ln_t, ConfigFree> config_;
  std::unique_ptr<ps_decoder_t, DecoderFree> decoder_;
};

}  // namespace

std::string default_model_folder() {
  return ZEL_POCKETSPHINX_MODELS "/en-us";
}

EngineFactory pocketsphinx_factory(std::string folder) {
  return [folder = std::move(folder)]() -> std::unique_ptr<Engine> {
    static std::once_flag silenced;
    std::call_once(silenced, [] { err_set_logfp(nullptr); });
    return std::make_unique<PocketSphinxEngine>(folder);
  };
}

}  // namespace zel::speechd
