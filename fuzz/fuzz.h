// What the fuzz targets share.
//
// A target is one LLVMFuzzerTestOneInput in a source of its own, with the properties that it checks at the top of the
// file. libFuzzer searches with it for inputs that break one; replay.cpp runs it over its corpus as a regression test.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// Ends the process when a property does not hold, in every kind of build.
#define FUZZ_CHECK(property)                                                     \
  do {                                                                           \
    if (!(property)) {                                                           \
      std::fprintf(stderr, "line %d: does not hold: %s\n", __LINE__, #property); \
      std::abort();                                                              \
    }                                                                            \
  } while (false)

namespace fuzz {

// Takes decisions from the fuzzer's bytes, front to back; zeros when they have run out.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

  bool empty() const { return rest_.empty(); }

  // From 0 to limit - 1, of the 1, 2 or 4 bytes that it needs.
  std::uint32_t below(std::uint32_t limit) {
    const std::string bytes(take(limit <= 0x100 ? 1 : limit <= 0x10000 ? 2 : 4));
    std::uint32_t number = 0;
    std::memcpy(&number, bytes.data(), bytes.size());
    return number % limit;
  }
  std::uint64_t number() {
    std::uint64_t number = 0;
    const std::string_view bytes = take(sizeof number);
    std::copy(bytes.begin(), bytes.end(), reinterpret_cast<char*>(&number));
    return number;
  }
  // The next `size` bytes, or as many as are left.
  std::string_view take(std::size_t size) {
    const std::string_view bytes = rest_.substr(0, size);
    rest_.remove_prefix(bytes.size());
    return bytes;
  }
  std::string_view rest() { return take(rest_.size()); }

 private:
  std::string_view rest_;
};

}  // namespace fuzz
