// From audio to utterances: detector, cutter and the encoder's sizes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>

#include "audio_source.h"
#include "encoder.h"
#include "member_feed.h"
#include "recordings.h"
#include "utterance_cutter.h"
#include "voice_detector.h"

namespace zel::transcribe {
namespace {

using Audio = std::vector<Frame>;

struct Span {
  std::uint64_t first;
  std::uint64_t last;
};

Audio silence(std::size_t frames) {
  return Audio(frames, Frame{});
}

Audio recording(const std::string& name) {
  const auto source = open_file(std::string(ZEL_TEST_RECORDINGS "/") + name);
  Audio audio(1);
  while (source->read(audio.back()) == ReadResult::kFrame)
    audio.emplace_back();
  audio.pop_back();
  return audio;
}

Audio noise(std::size_t frames, double amplitude) {
  std::mt19937 random(1);
  std::normal_distribution<double> sample(0, amplitude);
  Audio audio(frames);
  for (Frame& frame : audio) {
    for (auto& each : frame)
      each = static_cast<std::int16_t>(sample(random));
  }
  return audio;
}

// A melody without a pause: a new chord every half second.
Audio music(std::size_t frames) {
  Audio audio(frames);
  for (std::size_t i = 0; i < frames * kFrameSamples; ++i) {
    const double step = std::exp2(static_cast<double>(i / 8000 * 7 % 12) / 12);
    const double time = static_cast<double>(i) / kSampleRate;
    double sum = 0;
    for (const double tone : {220.0, 277.0, 330.0})
      sum += std::sin(2 * std::numbers::pi * tone * step * time);
    audio[i / kFrameSamples][i % kFrameSamples] = static_cast<std::int16_t>(2500 * (1 + 0.5 * std::sin(time)) * sum);
  }
  return audio;
}

// The utterances of the parts one after the other. Each must be without a gap.
std::vector<Span> cut(const std::vector<Audio>& parts) {
  std::vector<Span> spans;
  bool open = false;
  VoiceDetector detector;
  UtteranceCutter cutter(kLongestUtterance, {.audio =
                                                 [&](const Frame&, std::uint64_t index) {
                                                   if (!std::exchange(open, true)) spans.push_back({index, index - 1});
                                                   EXPECT_EQ(index, spans.back().last + 1);
                                                   spans.back().last = index;
                                                 },
                                             .cut = [&] { EXPECT_TRUE(std::exchange(open, false)); }});
  for (const Audio& part : parts) {
    for (const Frame& frame : part)
      cutter.push(frame, detector.look_at(frame));
  }
  cutter.finish();
  EXPECT_FALSE(open);
  return spans;
}

TEST(Utterances, PausesCutAndWordsKeepTheirEnds) {
  const Audio speech =
      recording("goforward.raw");  // words from frame 12 to 61 of 69, "go", a short pause, "forward ..."
  const auto spans = cut({silence(50), speech, silence(25), speech});
  ASSERT_EQ(spans.size(), 2U);
  const std::uint64_t starts[] = {50, 50 + speech.size() + 25};
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_LE(spans[i].first, starts[i] + 12 - 4);
    EXPECT_GE(spans[i].first, starts[i]);
    EXPECT_GE(spans[i].last, starts[i] + 56 + 4);
    EXPECT_LE(spans[i].last, starts[i] + speech.size() + 6);
  }
}

TEST(Utterances, SentencesStayWhole) {
  for (const auto& sentence : speechd_test::kNovel)
    EXPECT_EQ(cut({recording(sentence.file)}).size(), 1U) << sentence.words;
}

TEST(Utterances, SpeechIsFoundInNoise) {
  Audio audio = noise(240, 150);
  const Audio speech = recording("goforward.raw");
  for (std::size_t i = 0; i < speech.size(); ++i) {
    for (std::size_t k = 0; k < kFrameSamples; ++k)
      audio[120 + i][k] = static_cast<std::int16_t>(audio[120 + i][k] + speech[i][k]);
  }
  const auto spans = cut({audio});
  ASSERT_EQ(spans.size(), 1U);
  EXPECT_THAT(spans[0].first, testing::AllOf(testing::Ge(120U), testing::Le(130U)));
  EXPECT_THAT(spans[0].last, testing::AllOf(testing::Ge(176U), testing::Le(200U)));
}

TEST(Utterances, SilenceClicksNoiseAndMusicMakeNoneOrEnd) {
  Audio clicks = silence(100);
  for (std::size_t i = 0; i < clicks.size(); i += 10)
    clicks[i].fill(20'000);
  for (const Audio& audio : {silence(500), noise(500, 100), clicks})
    EXPECT_TRUE(cut({audio}).empty());
  const Audio loud = noise(3000, 4000);
  for (const Audio& audio : {loud, music(3000)}) {
    for (const Span& span : cut({audio}))
      EXPECT_LE(span.last - span.first, kLongestUtterance + 12);
  }
  const auto spans = cut({loud});  // steady noise is understood to be one after a while
  ASSERT_FALSE(spans.empty());
  EXPECT_LT(spans.back().last, 1500U);
}

TEST(Utterances, EveryPacketHasThePromisedSize) {
  const Audio speech = recording("goforward.raw");
  for (const int bitrate : {kMinBitrate, kDefaultBitrate, 24'000, kMaxBitrate}) {
    Encoder encoder(bitrate);
    std::array<unsigned char, host::kMaxPacketSize> packet;
    for (const Frame& frame : speech)
      ASSERT_EQ(encoder.encode(frame, packet), packet_size(bitrate)) << bitrate;
    EXPECT_LT(max_stream_size(longest_utterance(bitrate), packet_size(bitrate)), 73'728U) << bitrate;
  }
}

}  // namespace
}  // namespace zel::transcribe
