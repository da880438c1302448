#include "ogg_pages.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

using std::string_literals::operator""s;

constexpr std::size_t kHeaderSize = 27;
constexpr std::size_t kChecksumAt = 22;

std::uint64_t Number(std::string_view bytes, std::size_t at, std::size_t size) {
  std::uint64_t number = 0;
  for (std::size_t i = size; i-- > 0;)
    number = number << 8 | static_cast<std::uint8_t>(bytes[at + i]);
  return number;
}

// Polynomial 0x04c11db7, most significant bit first, no inversion; the checksum's own field counts as zero.
std::uint32_t Checksum(std::string_view page) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < page.size(); ++i) {
    if (i < kChecksumAt || i >= kChecksumAt + 4)
      sum ^= static_cast<std::uint32_t>(static_cast<std::uint8_t>(page[i])) << 24;
    for (int bit = 0; bit < 8; ++bit)
      sum = sum << 1 ^ ((sum & 0x80000000u) != 0 ? 0x04c11db7u : 0);
  }
  return sum;
}

}  // namespace

void ExpectOpusStream(std::string_view bytes, const std::vector<std::string>& packets) {
  std::vector<std::string> found;
  std::string open;  // packet that continues on the next page
  bool continued = false;
  for (std::uint32_t number = 0; !bytes.empty(); ++number) {
    SCOPED_TRACE("page " + std::to_string(number));
    ASSERT_GE(bytes.size(), kHeaderSize);
    ASSERT_EQ(bytes.substr(0, 5), "OggS\0"s);
    const std::size_t segments = Number(bytes, 26, 1);
    ASSERT_GE(bytes.size(), kHeaderSize + segments);
    std::size_t body = 0, ended = 0;
    for (std::size_t i = 0; i < segments; ++i)
      body += Number(bytes, kHeaderSize + i, 1);
    const std::size_t size = kHeaderSize + segments + body;
    ASSERT_GE(bytes.size(), size);
    const std::string_view page = bytes.substr(0, size);
    EXPECT_EQ(Number(page, kChecksumAt, 4), Checksum(page));
    EXPECT_EQ(Number(page, 14, 4), 0u) << "serial number";
    EXPECT_EQ(Number(page, 18, 4), number) << "page number";
    const unsigned flags = (continued ? 1u : 0u) | (number == 0 ? 2u : 0u) | (size == bytes.size() ? 4u : 0u);
    EXPECT_EQ(Number(page, 5, 1), flags);

    std::size_t at = kHeaderSize + segments;
    for (std::size_t i = 0; i < segments; ++i) {
      const std::size_t length = Number(page, kHeaderSize + i, 1);
      open.append(page, at, length);
      at += length;
      continued = length == 255;
      if (continued) continue;
      found.push_back(std::exchange(open, {}));
      ++ended;
    }
    EXPECT_TRUE(number >= 2 || (ended == 1 && !continued)) << "a header shares its page";
    const std::uint64_t position = found.size() <= 2 ? 0 : 1920 * (found.size() - 2);
    EXPECT_EQ(Number(page, 6, 8), ended == 0 ? UINT64_MAX : position) << "granule position";
    bytes.remove_prefix(size);
  }
  EXPECT_TRUE(open.empty());
  ASSERT_EQ(found.size(), packets.size() + 2);
  EXPECT_EQ(found[0], "OpusHead\1\1\0\0\x80\x3E\0\0\0\0\0"s);
  EXPECT_EQ(found[1], "OpusTags\0\0\0\0\0\0\0\0"s);
  for (std::size_t i = 0; i < packets.size(); ++i)
    EXPECT_EQ(found[i + 2], packets[i]) << "packet " << i;
}
