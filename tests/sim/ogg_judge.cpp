#include <ogg/ogg.h>

#include <cstring>

#include "web.h"

namespace sim {

namespace {

// libogg's reader over one buffer.
struct Reader {
  explicit Reader(std::string_view bytes) {
    ogg_sync_init(&sync);
    ogg_stream_init(&stream, 0);
    std::memcpy(ogg_sync_buffer(&sync, static_cast<long>(bytes.size())), bytes.data(), bytes.size());
    ogg_sync_wrote(&sync, static_cast<long>(bytes.size()));
  }
  ~Reader() {
    ogg_stream_clear(&stream);
    ogg_sync_clear(&sync);
  }
  ogg_sync_state sync;
  ogg_stream_state stream;
};

}  // namespace

std::string JudgeStream(std::string_view bytes, const Utterance& utterance) {
  using std::string_literals::operator""s;
  std::vector<std::string> expected = {"OpusHead\1\1\0\0\x80\x3E\0\0\0\0\0"s, "OpusTags\0\0\0\0\0\0\0\0"s};
  for (const Packet& packet : utterance.packets)
    expected.push_back(PacketBytes(packet));
  Reader reader(bytes);
  ogg_page page;
  ogg_packet packet;
  std::size_t found = 0, next = 0;  // packets read; index of the one that comes next
  bool ended = false;
  int more = 0;
  while ((more = ogg_sync_pageout(&reader.sync, &page)) == 1) {
    if (ended || ogg_stream_pagein(&reader.stream, &page) != 0) return "pages of another stream, or behind the end";
    ended = ogg_page_eos(&page) != 0;
    for (int got = 0; (got = ogg_stream_packetout(&reader.stream, &packet)) != 0;) {
      if (got < 0 && utterance.damaged) continue;
      const std::string_view data(reinterpret_cast<char*>(packet.packet), static_cast<std::size_t>(packet.bytes));
      while (utterance.damaged && found >= 2 && next < expected.size() && expected[next] != data)
        ++next;
      if (got < 0 || next == expected.size() || expected[next++] != data) return "other packets than were spoken";
      if (++found <= 2 && ogg_page_packets(&page) != 1) return "a header shares its page";
      const auto position = static_cast<ogg_int64_t>(found <= 2 ? 0 : 1920 * (found - 2));
      if (packet.granulepos >= 0 && packet.granulepos != position && !utterance.damaged) return "a wrong position";
    }
  }
  if (more != 0 || reader.sync.returned != reader.sync.fill || !ended) return "no end, or bytes that are no page";
  return next == expected.size() || utterance.damaged ? "" : "packets are missing";
}

}  // namespace sim
