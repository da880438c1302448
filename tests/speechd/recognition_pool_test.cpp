#include "recognition_pool.h"

#include <gtest/gtest.h>

#include <optional>

#include "scripted_engine.h"

namespace zel::speechd {
namespace {

using speechd_test::Script;

const Deadline kNever = Deadline::max();

TEST(RecognitionPool, WorksSideBySideAndRefusesWhatDoesNotFitTheQueue) {
  Script script(/*open=*/false);
  RecognitionPool pool(2, script.Factory(), 1);
  EXPECT_EQ(script.Made(), 2);
  std::future<Outcome> first = pool.submit(std::vector<std::int16_t>(1), kNever);
  script.AwaitBusy(1);
  std::future<Outcome> second = pool.submit(std::vector<std::int16_t>(2), kNever);
  script.AwaitBusy(2);
  std::future<Outcome> third = pool.submit(std::vector<std::int16_t>(3), kNever);
  EXPECT_EQ(pool.waiting(), 1u);
  EXPECT_THROW(pool.submit({}, kNever), Overload);
  script.Open();
  EXPECT_EQ(first.get().recognition.text, "1 samples");
  EXPECT_EQ(second.get().recognition.text, "2 samples");
  EXPECT_EQ(third.get().recognition.text, "3 samples");
}

TEST(RecognitionPool, GivesUpWhatWaitedTooLongAndPassesFailuresOn) {
  Script script;
  script.fail = true;
  RecognitionPool pool(1, script.Factory(), 4);
  EXPECT_THROW(pool.submit({}, Deadline::min()).get().get(), Overload);
  EXPECT_THROW(pool.submit({}, kNever).get().get(), std::runtime_error);
}

TEST(RecognitionPool, FinishesWhatItAcceptedBeforeItGoes) {
  Script script(/*open=*/false);
  std::optional<RecognitionPool> pool;
  pool.emplace(1u, script.Factory(), std::size_t{4});
  std::future<Outcome> first = pool->submit(std::vector<std::int16_t>(1), kNever);
  std::future<Outcome> second = pool->submit(std::vector<std::int16_t>(2), kNever);
  script.AwaitBusy(1);
  script.Open();
  pool.reset();
  EXPECT_EQ(first.get().recognition.text, "1 samples");
  EXPECT_EQ(second.get().recognition.text, "2 samples");
}

TEST(RecognitionPool, OneEngineThatCannotBeMadeFailsIt) {
  Script script;
  std::atomic<int> calls{0};
  const EngineFactory factory = [&]() -> std::unique_ptr<Engine> {
    if (++calls == 2) throw std::runtime_error("no model");
    return script.Factory()();
  };
  EXPECT_THROW(RecognitionPool(3, factory, 4), std::runtime_error);
}

}  // namespace
}  // namespace zel::speechd
