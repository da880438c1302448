// What is in an Ogg stream, as libogg reads it.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace bench {

/** The packets behind the two header packets; none when there are fewer than two. */
std::vector<std::vector<std::uint8_t>> ogg_packets(std::span<const std::uint8_t> stream);

}  // namespace bench
