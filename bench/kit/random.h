// Seeded choices, the same on every machine.
//
// Thread rule: an object belongs to one thread.
#pragma once

#include <cstdint>
#include <random>

namespace bench {

class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}
  /** 0 to bound - 1. */
  std::uint32_t below(std::uint32_t bound) { return static_cast<std::uint32_t>(engine_() % bound); }
  bool one_in(std::uint32_t n) { return below(n) == 0; }

 private:
  std::mt19937_64 engine_;
};

}  // namespace bench
