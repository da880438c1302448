#include <ogg/ogg.h>

#include <cstring>

#include "web.h"

namespace sim {

namespace {

// libogg's reader over one buffer.
class Reader {
 public:
  explicit Reader(std::span<const std::uint8_t> bytes) {
    ogg_sync_init(&sync_);
    ogg_stream_init(&stream_, 0);
    std::memcpy(ogg_sync_buffer(&sync_, static_cast<long>(bytes.size())), bytes.data(), bytes.size());
    ogg_sync_wrote(&sync_, static_cast<long>(bytes.size()));
  }
  ~Reader() {
    ogg_stream_clear(&stream_);
    ogg_sync_clear(&sync_);
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // 1: a page; 0: the end; negative: bytes that are no page.
  int NextPage(ogg_page* page) {
    const int found = ogg_sync_pageout(&sync_, page);
    return found == 1 && ogg_stream_pagein(&stream_, page) != 0 ? -1 : found;
  }
  // 1: a packet; 0: none left; negative: one is missing.
  int NextPacket(ogg_packet* packet) { return ogg_stream_packetout(&stream_, packet); }
  bool AllRead() const { return sync_.returned == sync_.fill; }

 private:
  ogg_sync_state sync_;
  ogg_stream_state stream_;
};

std::string Bytes(const ogg_packet& packet) {
  return {reinterpret_cast<const char*>(packet.packet), static_cast<std::size_t>(packet.bytes)};
}

}  // namespace

std::string JudgeStream(std::span<const std::uint8_t> bytes, const Utterance& utterance) {
  using std::string_literals::operator""s;
  const std::string headers[] = {"OpusHead\1\1\0\0\x80\x3E\0\0\0\0\0"s, "OpusTags\0\0\0\0\0\0\0\0"s};
  Reader reader(bytes);
  ogg_page page;
  ogg_packet packet;
  std::size_t found = 0, next = 0;  // packets read; index of the spoken one that comes next
  bool ended = false;
  int more = 0;
  while ((more = reader.NextPage(&page)) == 1) {
    if (ended) return "pages behind the end";
    ended = ogg_page_eos(&page) != 0;
    for (int got = 0; (got = reader.NextPacket(&packet)) != 0;) {
      if (got < 0) {
        if (!utterance.damaged) return "a page is missing";
        continue;
      }
      const std::string data = Bytes(packet);
      if (found++ < 2) {
        if (data != headers[found - 1] || ogg_page_packets(&page) != 1) return "other header pages";
        continue;
      }
      while (utterance.damaged && next < utterance.packets.size() && PacketBytes(utterance.packets[next]) != data)
        ++next;
      if (next == utterance.packets.size()) return "a packet that was not spoken, or not in this order";
      if (data != PacketBytes(utterance.packets[next++])) return "another packet than was spoken";
      const auto position = static_cast<ogg_int64_t>(1920 * (found - 2));
      if (packet.granulepos >= 0 && packet.granulepos != position && !utterance.damaged) return "a wrong position";
    }
  }
  if (more < 0 || !reader.AllRead()) return "bytes that are no page";
  if (!ended) return "no end";
  if (!utterance.damaged && next != utterance.packets.size()) return "packets are missing";
  return "";
}

}  // namespace sim
