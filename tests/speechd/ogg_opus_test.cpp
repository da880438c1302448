#include "ogg_opus.h"

#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <random>

#include "ogg_opus_writer.h"

namespace zel::speechd {
namespace {

using speechd_test::Tone;
using speechd_test::WriteOggOpus;
using std::chrono::seconds;

std::optional<AudioFault> Fault(std::string_view body, seconds max = seconds(65)) {
  try {
    decode_ogg_opus(body, max);
    return std::nullopt;
  } catch (const AudioError& error) {
    return error.fault();
  }
}

double Frequency(const std::vector<std::int16_t>& samples) {
  int crossings = 0;
  for (std::size_t i = 1; i < samples.size(); ++i)
    crossings += samples[i - 1] < 0 && samples[i] >= 0;
  return crossings * 16000.0 / static_cast<double>(samples.size());
}

double Level(const std::vector<std::int16_t>& samples) {
  double energy = 0;
  for (const std::int16_t sample : samples)
    energy += static_cast<double>(sample) * sample;
  return std::sqrt(energy / static_cast<double>(samples.size()));
}

TEST(OggOpus, GivesTheAudioAt16kHzMono) {
  for (const int channels : {1, 2}) {
    SCOPED_TRACE(channels);
    const auto tone = Tone(440, 2.0);
    const auto decoded = decode_ogg_opus(WriteOggOpus(tone, {.bit_rate = 32000, .channels = channels}), seconds(65));
    EXPECT_NEAR(static_cast<double>(decoded.size()), 32000, 2);
    EXPECT_NEAR(Frequency(decoded), 440, 3);
    EXPECT_NEAR(Level(decoded) / Level(tone), 1, 0.1);
  }
}

TEST(OggOpus, RefusesWhatIsNotAnUtterance) {
  const std::string stream = WriteOggOpus(Tone(440, 1.0));
  const std::string long_stream = WriteOggOpus(Tone(440, 3.2));
  EXPECT_EQ(Fault(stream), std::nullopt);
  EXPECT_EQ(Fault(""), AudioFault::kEmpty);
  EXPECT_EQ(Fault(WriteOggOpus({})), AudioFault::kEmpty);
  EXPECT_EQ(Fault("RIFF....WAVEfmt "), AudioFault::kNotOggOpus);
  EXPECT_EQ(Fault(std::string(5000, '\0')), AudioFault::kNotOggOpus);
  EXPECT_EQ(Fault(stream.substr(0, 47)), AudioFault::kNotOggOpus) << "nothing behind the identification page";
  EXPECT_EQ(Fault(long_stream, seconds(4)), std::nullopt);
  EXPECT_EQ(Fault(long_stream, seconds(3)), AudioFault::kTooLong);
}

TEST(OggOpus, SurvivesDamage) {
  const std::string stream = WriteOggOpus(Tone(440, 0.4));
  for (std::size_t size = 0; size < stream.size(); ++size)
    Fault(stream.substr(0, size));
  const unsigned seed = 20240611;
  std::mt19937 random(seed);
  for (int i = 0; i < 300; ++i) {
    std::string damaged = stream;
    for (int hits = 0; hits < 3; ++hits)
      damaged[random() % damaged.size()] = static_cast<char>(random());
    Fault(damaged);  // any outcome but a crash, a hang or another exception
  }
}

}  // namespace
}  // namespace zel::speechd
