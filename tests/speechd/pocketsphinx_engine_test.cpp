#include "pocketsphinx_engine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "ogg_opus.h"
#include "test_audio.h"

namespace zel::speechd {
namespace {

using namespace speechd_test;

// One engine for all: loading the model is what takes longest.
Recognition Recognize(const std::vector<std::int16_t>& samples, Deadline deadline = Deadline::max()) {
  static const std::unique_ptr<Engine> engine = pocketsphinx_factory()();
  return engine->recognize(samples, deadline);
}

// What the engine hears of a recording that came through the codec at a voice room's bit rate.
std::string Heard(const Recording& recording) {
  return Recognize(decode_ogg_opus(WriteOggOpus(LoadRecording(recording)), std::chrono::seconds(65))).text;
}

std::vector<std::string> Words(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

TEST(PocketSphinx, UnderstandsACommandWhateverCameBefore) {
  EXPECT_EQ(Heard(kGoForward), kGoForward.words);
  const std::string before = Heard(kNovel[1]);
  for (const std::size_t silence : {16000, 1, 0})
    EXPECT_EQ(Recognize(std::vector<std::int16_t>(silence)).text, "");
  EXPECT_EQ(Heard(kGoForward), kGoForward.words);
  EXPECT_EQ(Heard(kNovel[1]), before);
}

TEST(PocketSphinx, UnderstandsMostOfANovelReadAloud) {
  std::size_t spoken = 0, errors = 0;  // words missing, or more than there should be
  for (const Recording& recording : kNovel) {
    std::vector<std::string> words = Words(recording.words), heard = Words(Heard(recording)), common;
    std::ranges::sort(words);
    std::ranges::sort(heard);
    std::ranges::set_intersection(words, heard, std::back_inserter(common));
    spoken += words.size();
    errors += std::max(words.size(), heard.size()) - common.size();
  }
  EXPECT_LE(errors * 10, spoken * 3) << errors << " of " << spoken;
}

TEST(PocketSphinx, TakesLongAudioInPiecesAndStopsAtTheDeadline) {
  const std::vector<std::int16_t> one = LoadRecording(kGoForward);
  std::vector<std::int16_t> all;
  while (all.size() < std::size_t{15} * kSampleRate)
    all.insert(all.end(), one.begin(), one.end());
  const Recognition whole = Recognize(all);
  EXPECT_TRUE(whole.complete);
  EXPECT_GE(Words(whole.text).size(), 20u) << whole.text;

  const Recognition none = Recognize(all, std::chrono::steady_clock::now());
  EXPECT_FALSE(none.complete);
  EXPECT_EQ(none.text, "");
}

}  // namespace
}  // namespace zel::speechd
