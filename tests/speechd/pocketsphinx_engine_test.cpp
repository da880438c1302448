#include "pocketsphinx_engine.h"

#include <gtest/gtest.h>

#include <algorithm>
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
  return {std::istream_iterator<std::string>(stream), {}};
}

// Fewest insertions, deletions and replacements that turn one into the other.
std::size_t WordErrors(const std::string& expected, const std::string& heard) {
  const std::vector<std::string> a = Words(expected);
  const std::vector<std::string> b = Words(heard);
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j)
    row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0]++;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i - 1] != b[j - 1]);
      diagonal = row[j];
      row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
    }
  }
  return row[b.size()];
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
  std::size_t words = 0;
  std::size_t errors = 0;
  for (const Recording& recording : kNovel) {
    const std::string heard = TheEngine().recognize(Sent(recording), kNever).text;
    words += Words(recording.words).size();
    errors += WordErrors(recording.words, heard);
  }
  RecordProperty("word_errors", std::to_string(errors) + "/" + std::to_string(words));
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
  try {
    pocketsphinx_factory("no-such-folder")();
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find("no-such-folder"), std::string::npos);
  }
}

}  // namespace
}  // namespace zel::speechd
