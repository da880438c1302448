#include "recognition_pool.h"

#include <gtest/gtest.h>

#include <optional>

#include "scripted_engine.h"

namespace zel::speechd {
namespace {

using speechd_test::Script;

TEST(RecognitionPool, FinishesWhatItAcceptedBeforeItGoes) {
  Script script(/*open=*/false);
  std::optional<RecognitionPool> pool(std::in_place, 2U, script.Factory(), std::size_t{1000});
  EXPECT_EQ(script.made, 2);
  std::vector<std::future<Outcome>> outcomes;
  for (std::size_t i = 0; i < 1000; ++i)
    outcomes.push_back(pool->submit(std::vector<std::int16_t>(i), Deadline::max()));
  script.AwaitBusy(2);
  script.Open();
  pool.reset();
  for (std::size_t i = 0; i < 1000; ++i)
    EXPECT_EQ(outcomes[i].get().recognition.text, std::to_string(i) + " samples");
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
