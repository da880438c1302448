// The one source of chance of a run (SplitMix64): the same seed gives the same sequence everywhere.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <iterator>

namespace sim {

class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}

  std::uint64_t Next() {
    std::uint64_t z = state_ += 0x9E3779B97F4A7C15;
    z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9;
    z = (z ^ z >> 27) * 0x94D049BB133111EB;
    return z ^ z >> 31;
  }
  std::uint32_t Below(std::uint64_t n) { return static_cast<std::uint32_t>((Next() >> 32) * n >> 32); }
  std::uint32_t Between(std::uint32_t low, std::uint32_t high) { return low + Below(high - low + 1); }
  bool OneIn(std::uint32_t n) { return n != 0 && Below(n) == 0; }  // 0: never
  template <typename Range>
  auto& Pick(Range&& range) {
    return range[Below(std::size(range))];
  }
  std::uint32_t Pick(std::initializer_list<std::uint32_t> values) { return values.begin()[Below(values.size())]; }

 private:
  std::uint64_t state_;
};

}  // namespace sim
