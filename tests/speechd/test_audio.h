// Audio to recognize, 16 kHz and 16 bit: the recordings of the Debian package pocketsphinx-testdata, and tones.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <numbers>
#include <string>
#include <vector>

#include "child_process.h"

namespace speechd_test {

using Samples = std::vector<std::int16_t>;

struct Recording {
  const char* file;
  const char* words;
};

inline constexpr Recording kGoForward = {"goforward.raw", "go forward ten meters"};
inline constexpr Recording kNovel[] = {
    {"librivox/sense_and_sensibility_01_austen_64kb-0870.wav",
     "and mister john dashwood had then leisure to consider how much there might be prudently in his power to do for "
     "them"},
    {"librivox/sense_and_sensibility_01_austen_64kb-0880.wav", "he was not an ill disposed young man"},
    {"librivox/sense_and_sensibility_01_austen_64kb-0890.wav",
     "unless to be rather cold hearted and rather selfish is to be ill disposed"},
    {"librivox/sense_and_sensibility_01_austen_64kb-0920.wav",
     "had he married a more amiable woman he might have been made still more respectable than he was"},
    {"librivox/sense_and_sensibility_01_austen_64kb-0930.wav", "he might even have been made amiable himself"},
};

inline std::string RecordingPath(const Recording& recording) {
  return std::string(ZEL_TEST_RECORDINGS "/") + recording.file;
}

inline Samples LoadRecording(const Recording& recording) {
  const std::string bytes = ReadFile(RecordingPath(recording));
  const std::size_t header = bytes.starts_with("RIFF") ? 44 : 0;
  Samples samples((bytes.size() - header) / 2);
  std::memcpy(samples.data(), bytes.data() + header, samples.size() * 2);
  return samples;
}

inline Samples Tone(double frequency, double seconds) {
  Samples samples(static_cast<std::size_t>(seconds * 16000));
  for (double angle = 0; std::int16_t & sample : samples)
    sample = static_cast<std::int16_t>(8000 * std::sin(angle += 2 * std::numbers::pi * frequency / 16000));
  return samples;
}

// An Ogg Opus stream of 40 ms packets, as the service's clients send them; both channels of two carry the same.
inline std::string WriteOggOpus(const Samples& samples, int kilobits = 12, int channels = 1) {
  const TemporaryFolder folder;
  std::string raw;
  for (const std::int16_t& sample : samples) {
    for (int channel = 0; channel < channels; ++channel)
      raw.append(reinterpret_cast<const char*>(&sample), sizeof sample);
  }
  RunProgram({"opusenc", "--quiet", "--raw", "--raw-rate", "16000", "--raw-chan", std::to_string(channels),
              "--framesize", "40", "--bitrate", std::to_string(kilobits), folder.File("raw", raw),
              folder.File("opus")});
  return ReadFile(folder.File("opus"));
}

}  // namespace speechd_test
