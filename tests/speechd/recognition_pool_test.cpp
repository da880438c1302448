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
  EXPECT_EQ(script.made, 2);
  std::vector<std::future<Outcome>> outcomes;
  for (const int busy : {1, 2, 2}) {
    outcomes.push_back(pool.submit(std::vector<std::int16_t>(outcomes.size() + 1), kNever));
    script.AwaitBusy(busy);
  }
  EXPECT_EQ(pool.waiting(), 1u);
  EXPECT_THROW(pool.submit({}, kNever), Overload);
  script.Open();
  for (std::size_t i = 0; i < 3; ++i)
    EXPECT_EQ(outcomes[i].get().recognition.text, std::to_string(i + 1) + " samples");
}

TEST(RecognitionPool, FinishesWhatItAcceptedBeforeItGoes) {
  Script script(/*open=*/false);
  std::optional<RecognitionPool> pool(std::in_place, 1U, script.Factory(), std::size_t{1000});
  std::vector<std::future<Outcome>> outcomes;
  for (int i = 0; i < 1000; ++i)
    outcomes.push_back(pool->submit(std::vector<std::int16_t>(1), kNever));
  script.Open();
  pool.reset();
  for (std::future<Outcome>& outcome : outcomes)
    EXPECT_EQ(outcome.get().recognition.text, "1 samples");
}

TEST(RecognitionPool, GivesUpWhatWaitedTooLongAndPassesFailuresOn) {
  Script script;
  script.fail = true;
  RecognitionPool pool(1, script.Factory(), 4);
  EXPECT_THROW(pool.submit({}, Deadline::min()).get().get(), Overload);
  EXPECT_THROW(pool.submit({}, kNever).get().get(), std::runtime_error);
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
