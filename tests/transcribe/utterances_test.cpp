// From audio to utterances: detector, cutter and the encoder's sizes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>

#include "encoder.h"
#include "member_feed.h"
#include "test_audio.h"
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

Audio recording(const speechd_test::Recording& which) {
  const std::vector<std::int16_t> samples = speechd_test::LoadRecording(which);
  Audio audio(samples.size() / kFrameSamples);
  std::memcpy(audio.data(), samples.data(), audio.size() * sizeof(Frame));
  return audio;
}

Audio noise(std::size_t frames, double amplitude) {
  std::mt19937 random(1);
  std::normal_distribution<double> sample(0, amplitude);
  Audio audio(frames);
  for (Frame& frame : audio)
    std::ranges::generate(frame, [&] { return static_cast<std::int16_t>(sample(random)); });
  return audio;
}

// The utterances of the parts one after the other. Each must be without a gap.
std::vector<Span> cut(const std::vector<Audio>& parts) {
  std::vector<Span> spans;
  bool open = false;
  VoiceDetector detector;
  CutterSink sink;
  sink.audio = [&](const Frame&, std::uint64_t index) {
    if (!std::exchange(open, true)) spans.push_back({index, index - 1});
    EXPECT_EQ(index, spans.back().last + 1);
    spans.back().last = index;
  };
  sink.cut = [&] { EXPECT_TRUE(std::exchange(open, false)); };
  UtteranceCutter cutter(kLongestUtterance, sink);
  for (const Audio& part : parts) {
    for (const Frame& frame : part)
      cutter.push(frame, detector.look_at(frame));
  }
  cutter.finish();
  EXPECT_FALSE(open);
  return spans;
}

TEST(Utterances, PausesCutAndWordsKeepTheirEnds) {
  const Audio speech = recording(speechd_test::kGoForward);  // "go", a short pause, ...: frames 12 to 61 of 69
  const auto spans = cut({silence(50), speech, silence(25), speech});
  ASSERT_EQ(spans.size(), 2U);
  const std::uint64_t starts[] = {50, 50 + speech.size() + 25};
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_LE(spans[i].first, starts[i] + 12 - 4);
    EXPECT_GE(spans[i].first, starts[i]);
    EXPECT_GE(spans[i].last, starts[i] + 56 + 4);
    EXPECT_LE(spans[i].last, starts[i] + speech.size() + 6);
  }
  for (const auto& sentence : speechd_test::kNovel)
    EXPECT_EQ(cut({recording(sentence)}).size(), 1U) << sentence.words;
}

TEST(Utterances, SpeechIsFoundInNoise) {
  Audio audio = noise(240, 150);
  const Audio speech = recording(speechd_test::kGoForward);
  for (std::size_t i = 0; i < speech.size(); ++i)
    std::ranges::transform(audio[120 + i], speech[i], audio[120 + i].begin(), std::plus<std::int16_t>());
  const auto spans = cut({audio});
  ASSERT_EQ(spans.size(), 1U);
  EXPECT_THAT(spans[0].first, testing::AllOf(testing::Ge(120U), testing::Le(130U)));
  EXPECT_THAT(spans[0].last, testing::AllOf(testing::Ge(176U), testing::Le(200U)));
}

TEST(Utterances, SilenceClicksAndNoiseMakeNoneOrEnd) {
  Audio clicks = silence(100);
  for (std::size_t i = 0; i < clicks.size(); i += 10)
    clicks[i].fill(20'000);
  for (const Audio& audio : {silence(500), noise(500, 100), clicks})
    EXPECT_TRUE(cut({audio}).empty());
  const auto spans = cut({noise(3000, 4000)});  // steady noise is understood to be one after a while
  ASSERT_FALSE(spans.empty());
  EXPECT_LT(spans.back().last, 1500U);
  for (const Span& span : spans)
    EXPECT_LE(span.last - span.first, kLongestUtterance + 12);
}

TEST(Utterances, EveryPacketHasThePromisedSize) {
  const Audio speech = recording(speechd_test::kGoForward);
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
