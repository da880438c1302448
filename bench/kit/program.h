// The frame of a benchmark program.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <memory>
#include <utility>

namespace bench {

/** Registers, runs and forgets the rows; a program's exit status. Arguments: those of the benchmark library. An
 * exception of a benchmark comes through. */
inline int run_program(int argc, char** argv, const std::function<void()>& register_rows) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  struct Forget {
    ~Forget() {
      benchmark::ClearRegisteredBenchmarks();
      benchmark::Shutdown();
    }
  } const forget;
  register_rows();
  return benchmark::RunSpecifiedBenchmarks() > 0 ? 0 : 1;
}

/** What the benchmarks of a row share: made when the first of them runs, destroyed with the last copy of this object,
 * which the registered benchmarks hold. */
template <typename Setup>
class Shared {
 public:
  explicit Shared(std::function<std::unique_ptr<Setup>()> make = std::make_unique<Setup>)
      : state_(std::make_shared<State>(State{std::move(make), nullptr})) {}
  Setup& operator()() const {
    if (!state_->setup) state_->setup = state_->make();
    return *state_->setup;
  }

 private:
  struct State {
    std::function<std::unique_ptr<Setup>()> make;
    std::unique_ptr<Setup> setup;
  };
  std::shared_ptr<State> state_;
};

}  // namespace bench
