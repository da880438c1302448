// The recordings of the Debian package pocketsphinx-testdata: 16 kHz mono, 16 bit.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "temporary_folder.h"

namespace speechd_test {

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

inline std::vector<std::int16_t> LoadRecording(const Recording& recording) {
  constexpr std::size_t kWavHeader = 44;
  const std::string bytes = ReadFile(RecordingPath(recording));
  const std::size_t header = std::string_view(bytes).starts_with("RIFF") ? kWavHeader : 0;
  std::vector<std::int16_t> samples((bytes.size() - std::min(header, bytes.size())) / 2);
  std::memcpy(samples.data(), bytes.data() + header, samples.size() * 2);
  return samples;
}

}  // namespace speechd_test
