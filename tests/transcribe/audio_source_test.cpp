#include "audio_source.h"

#include <gtest/gtest.h>
#include <sndfile.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <numbers>

namespace zel::transcribe {
namespace {

// A tone of `seconds`, the same in all channels but the first, which has nothing but a few unusable samples.
std::string write_tone(int rate, int channels, double seconds) {
  const std::string path = testing::TempDir() + "tone-" + std::to_string(getpid()) + ".wav";
  SF_INFO info{};
  info.samplerate = rate;
  info.channels = channels;
  info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  std::vector<float> samples(static_cast<std::size_t>(rate * seconds) * static_cast<std::size_t>(channels));
  for (std::size_t i = 0; i < samples.size(); ++i) {
    const auto time = static_cast<double>(i / static_cast<std::size_t>(channels)) / rate;
    const bool first = channels > 1 && i % static_cast<std::size_t>(channels) == 0;
    samples[i] = first ? 0 : static_cast<float>(0.5 * std::sin(2 * std::numbers::pi * 440 * time));
  }
  samples[0] = std::numeric_limits<float>::quiet_NaN();
  sf_write_float(file, samples.data(), static_cast<sf_count_t>(samples.size()));
  sf_close(file);
  return path;
}

TEST(AudioSource, AnyRateAndChannelCountBecomes16kMono) {
  const struct {
    int rate;
    int channels;
    double amplitude;
  } cases[] = {{16000, 1, 0.5}, {44100, 2, 0.25}, {8000, 1, 0.5}, {96000, 6, 0.5 * 5 / 6}, {11025, 2, 0.25}};
  for (const auto& each : cases) {
    const std::string path = write_tone(each.rate, each.channels, 2);
    const auto source = open_file(path);
    std::filesystem::remove(path);
    Frame frame;
    int frames = 0;
    double energy = 0;
    for (; source->read(frame) == ReadResult::kFrame; ++frames) {
      for (const auto sample : frame)
        energy += std::pow(sample / 32768.0, 2);
    }
    EXPECT_NEAR(frames, 50, 1) << each.rate;
    EXPECT_NEAR(std::sqrt(2 * energy / (50 * kFrameSamples)), each.amplitude, 0.01) << each.rate;
    EXPECT_EQ(source->error(), "");
  }
}

TEST(AudioSource, LiveAudioNeverBlocksAndEndsWithItsWriter) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const auto source = open_live(ends[0]);
  Frame frame;
  EXPECT_EQ(source->read(frame), ReadResult::kNotYet);
  const std::vector<unsigned char> bytes(2 * kFrameSamples - 1, 0x01);
  ASSERT_EQ(write(ends[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  EXPECT_EQ(source->read(frame), ReadResult::kNotYet);
  ASSERT_EQ(write(ends[1], bytes.data(), 4), 4);
  EXPECT_EQ(source->read(frame), ReadResult::kFrame);
  EXPECT_EQ(frame.back(), 0x0101);
  close(ends[1]);
  EXPECT_EQ(source->read(frame), ReadResult::kFrame);  // three bytes: one sample
  EXPECT_EQ(frame[0], 0x0101);
  EXPECT_EQ(frame[1], 0);
  EXPECT_EQ(source->read(frame), ReadResult::kEnd);
  close(ends[0]);
}

TEST(AudioSource, FilesInTurnHaveASecondBetweenThem) {
  const std::string path = write_tone(16000, 1, 1);
  std::vector<std::unique_ptr<AudioSource>> files;
  files.push_back(open_file(path));
  files.push_back(open_file(path));
  std::filesystem::remove(path);
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
