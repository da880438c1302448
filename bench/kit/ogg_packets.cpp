#include "ogg_packets.h"

#include <ogg/ogg.h>

#include <algorithm>

namespace bench {

std::vector<std::vector<std::uint8_t>> ogg_packets(std::span<const std::uint8_t> stream) {
  ogg_sync_state sync;
  ogg_sync_init(&sync);
  const auto size = static_cast<long>(stream.size());
  std::copy(stream.begin(), stream.end(), ogg_sync_buffer(&sync, size));
  ogg_sync_wrote(&sync, size);
  ogg_stream_state state{};
  ogg_page page;
  std::vector<std::vector<std::uint8_t>> packets;
  for (bool begun = false; ogg_sync_pageout(&sync, &page) == 1; begun = true) {
    if (!begun) ogg_stream_init(&state, ogg_page_serialno(&page));
    ogg_stream_pagein(&state, &page);
    ogg_packet packet;
    while (ogg_stream_packetout(&state, &packet) == 1)
      packets.emplace_back(packet.packet, packet.packet + packet.bytes);
  }
  ogg_stream_clear(&state);
  ogg_sync_clear(&sync);
  packets.erase(packets.begin(), packets.begin() + std::min<std::ptrdiff_t>(2, std::ssize(packets)));
  return packets;
}

}  // namespace bench
