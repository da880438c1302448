// Ogg Opus streams of 16 kHz mono audio, as the service's clients send them.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace speechd_test {

struct StreamOptions {
  int bit_rate = 12000;
  int channels = 1;  // more than one carry the same audio
};

// 40 ms packets; the last one is filled up with silence.
std::string WriteOggOpus(std::span<const std::int16_t> samples, const StreamOptions& options = {});

std::vector<std::int16_t> Tone(double frequency, double seconds, double amplitude = 8000);

}  // namespace speechd_test
