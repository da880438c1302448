#include "pocketsphinx_engine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <sstream>

#include "ogg_opus.h"
#include "ogg_opus_writer.h"
#include "recordings.h"

namespace zel::speechd {
namespace {

using namespace speechd_test;

const Deadline kNever = Deadline::max();

// As the service gets it: through the codec at a voice room's bit rate.
std::vector<std::int16_t> Sent(const Recording& recording) {
  return decode_ogg_opus(WriteOggOpus(LoadRecording(recording)), std::chrono::seconds(65));
}

std::vector<std::string> Words(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
  std::ranges::sort(words);
  return words;
}

// Words that are missing, or more than there should be.
std::size_t WordErrors(const std::string& expected, const std::string& heard) {
  std::vector<std::string> common;
  const auto a = Words(expected), b = Words(heard);
  std::ranges::set_intersection(a, b, std::back_inserter(common));
  return std::max(a.size(), b.size()) - common.size();
}

// One engine for all: loading the model is what takes longest.
Engine& TheEngine() {
  static const std::unique_ptr<Engine> engine = pocketsphinx_factory()();
  return *engine;
}

TEST(PocketSphinx, UnderstandsACommandWhateverCameBefore) {
  const std::vector<std::int16_t> command = Sent(kGoForward);
  EXPECT_EQ(TheEngine().recognize(command, kNever).text, kGoForward.words);
  const std::string before = TheEngine().recognize(Sent(kNovel[1]), kNever).text;
  EXPECT_EQ(TheEngine().recognize(command, kNever).text, kGoForward.words);
  EXPECT_EQ(TheEngine().recognize(Sent(kNovel[1]), kNever).text, before);
}

TEST(PocketSphinx, UnderstandsMostOfANovelReadAloud) {
  std::size_t words = 0, errors = 0;
  for (const Recording& recording : kNovel) {
    const std::string heard = TheEngine().recognize(Sent(recording), kNever).text;
    words += Words(recording.words).size();
    errors += WordErrors(recording.words, heard);
  }
  EXPECT_LE(errors * 10, words * 3) << errors << " of " << words;
}

TEST(PocketSphinx, HearsNothingInSilenceAndGoesOnAfterIt) {
  EXPECT_EQ(TheEngine().recognize(std::vector<std::int16_t>(kSampleRate), kNever).text, "");
  EXPECT_EQ(TheEngine().recognize({}, kNever).text, "");
  EXPECT_EQ(TheEngine().recognize(std::vector<std::int16_t>(1), kNever).text, "");
  EXPECT_EQ(TheEngine().recognize(Sent(kGoForward), kNever).text, kGoForward.words);
}

TEST(PocketSphinx, TakesLongAudioInPiecesAndStopsAtTheDeadline) {
  std::vector<std::int16_t> all;
  while (all.size() < std::size_t{15} * kSampleRate) {
    const std::vector<std::int16_t> one = LoadRecording(kGoForward);
    all.insert(all.end(), one.begin(), one.end());
  }
  const Recognition whole = TheEngine().recognize(all, kNever);
  EXPECT_TRUE(whole.complete);
  EXPECT_GE(Words(whole.text).size(), 20u) << whole.text;

  const Recognition none = TheEngine().recognize(all, std::chrono::steady_clock::now());
  EXPECT_FALSE(none.complete);
  EXPECT_EQ(none.text, "");
}

TEST(PocketSphinx, SaysWhereItIsMissing) {
  EXPECT_THAT([] { pocketsphinx_factory("no-such-folder")(); },
              testing::ThrowsMessage<std::runtime_error>(testing::HasSubstr("no-such-folder")));
}

}  // namespace
}  // namespace zel::speechd
