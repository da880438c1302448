#include "audio_source.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <sndfile.hh>

#include "temporary_folder.h"

namespace zel::transcribe {
namespace {

// A file with the same level in all channels but the first of several, which is silent. Its first sample is unusable.
std::unique_ptr<AudioSource> open_level(int rate, int channels, int seconds) {
  const speechd_test::TemporaryFolder folder;
  const std::string path = folder.File("level.wav");
  std::vector<float> samples(static_cast<std::size_t>(rate * channels * seconds), 0.5F);
  for (std::size_t i = 0; channels > 1 && i < samples.size(); i += static_cast<std::size_t>(channels))
    samples[i] = 0;
  samples[0] = std::numeric_limits<float>::quiet_NaN();
  SndfileHandle(path, SFM_WRITE, SF_FORMAT_WAV | SF_FORMAT_FLOAT, channels, rate)
      .write(samples.data(), static_cast<sf_count_t>(samples.size()));
  return open_file(path);
}

TEST(AudioSource, AnyRateAndChannelCountBecomes16kMono) {
  for (const auto& [rate, channels] : {std::pair{16000, 1}, {44100, 2}, {8000, 1}, {96000, 6}}) {
    SCOPED_TRACE(rate);
    const auto source = open_level(rate, channels, 2);
    std::vector<Frame> frames(1);
    while (source->read(frames.back()) == ReadResult::kFrame)
      frames.emplace_back();
    EXPECT_NEAR(static_cast<double>(frames.size()), 51, 1);
    const int level = channels == 1 ? 16384 : 16384 * (channels - 1) / channels;
    for (std::size_t i = 1; i + 3 < frames.size(); ++i)
      ASSERT_THAT(frames[i], testing::Each(testing::AllOf(testing::Ge(level - 100), testing::Le(level + 100)))) << i;
    EXPECT_EQ(source->error(), "");
  }
}

TEST(AudioSource, LiveAudioNeverBlocksAndEndsWithItsWriter) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const auto source = open_live(ends[0]);
  Frame frame;
  EXPECT_EQ(source->read(frame), ReadResult::kNotYet);
  const std::vector<std::int16_t> samples(kFrameSamples + 2, 0x0102);
  const char* bytes = reinterpret_cast<const char*>(samples.data());
  constexpr ssize_t kAllButOne = 2 * kFrameSamples - 1;
  ASSERT_EQ(write(ends[1], bytes, kAllButOne), kAllButOne);
  EXPECT_EQ(source->read(frame), ReadResult::kNotYet);
  ASSERT_EQ(write(ends[1], bytes + kAllButOne, 4), 4);
  EXPECT_EQ(source->read(frame), ReadResult::kFrame);
  EXPECT_EQ(frame.back(), 0x0102);
  close(ends[1]);
  EXPECT_EQ(source->read(frame), ReadResult::kFrame);  // three bytes: one sample
  EXPECT_EQ(frame[0], 0x0102);
  EXPECT_EQ(frame[1], 0);
  EXPECT_EQ(source->read(frame), ReadResult::kEnd);
  close(ends[0]);
}

TEST(AudioSource, FilesInTurnHaveASecondBetweenThem) {
  std::vector<std::unique_ptr<AudioSource>> files;
  files.push_back(open_level(16000, 1, 1));
  files.push_back(open_level(16000, 1, 1));
  const auto source = play_in_turn(std::move(files));
  std::vector<bool> sounding;
  for (Frame frame; source->read(frame) == ReadResult::kFrame;)
    sounding.push_back(frame != Frame{});
  std::vector<bool> expected(75, true);
  std::fill_n(expected.begin() + 25, 25, false);
  EXPECT_EQ(sounding, expected);
}

}  // namespace
}  // namespace zel::transcribe
