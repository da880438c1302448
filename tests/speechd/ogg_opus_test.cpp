#include "ogg_opus.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "test_audio.h"

namespace zel::speechd {
namespace {

TEST(OggOpus, GivesTheAudioAt16kHzMono) {
  const std::vector<std::int16_t> tone = speechd_test::Tone(440, 2.0);
  for (const int channels : {1, 2}) {
    const auto decoded = decode_ogg_opus(speechd_test::WriteOggOpus(tone, 32, channels), std::chrono::seconds(65));
    ASSERT_NEAR(static_cast<double>(decoded.size()), 32000, 2) << channels;
    double energy = 0, common = 0;  // the decoded tone has the level, the pitch and the phase of the other
    for (std::size_t i = 0; i < std::min(tone.size(), decoded.size()); ++i) {
      energy += static_cast<double>(tone[i]) * tone[i];
      common += static_cast<double>(tone[i]) * decoded[i];
    }
    EXPECT_NEAR(common / energy, 1, 0.1) << channels;
  }
}

}  // namespace
}  // namespace zel::speechd
