// The one audio format inside the program: 16-bit 16 kHz mono in frames of 40 ms.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace zel::transcribe {

inline constexpr int kSampleRate = 16000;
inline constexpr std::size_t kFrameSamples = 640;
inline constexpr double kFrameSeconds = 0.04;

using Frame = std::array<std::int16_t, kFrameSamples>;

}  // namespace zel::transcribe
