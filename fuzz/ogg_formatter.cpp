// The Ogg formatter, with libogg and opusfile reading what it writes.
//
// 1. Every packet of a stream comes back byte for byte, in order, 40 ms long, and nothing else does.
// 2. Pages: numbered from 0, serial number 0, the position of each the samples of the packets that end on it, the
//    beginning marked on the first and the end on the last alone.
// 3. With the recognizer's limits (packets of 256 bytes, chunks of 5120) no page is refused; with any other, nothing is
//    written behind the end of the output, and a page that does not fit is told.
#include "ogg_formatter.h"

#include <opusfile.h>

#include <memory>
#include <vector>

#include "fuzz.h"
#include "plugin_host.h"

namespace {

constexpr std::int32_t kSamples = 640;
constexpr std::int64_t kGranules = 1920;
// Enough for pages that end by their 255 lacing values and by their bytes; more would only take longer.
constexpr std::size_t kMaxPackets = 300;
constexpr std::size_t kMaxStream = 50'000;
constexpr char kToc = 0x50;  // 40 ms of wideband SILK in one frame (RFC 6716, section 3.1)
constexpr std::int32_t kLimits[] = {256, 1, 255, 1276, 4096, 8192};

using Packets = std::vector<std::string>;

std::string MakePacket(std::size_t size, std::size_t seed) {
  std::string packet(size, kToc);
  for (std::size_t i = 1; i < size; ++i)
    packet[i] = static_cast<char>(seed * 31 + i * 7);
  return packet;
}

void CheckPages(const std::string& stream) {
  ogg_sync_state sync;
  ogg_sync_init(&sync);
  std::memcpy(ogg_sync_buffer(&sync, static_cast<long>(stream.size())), stream.data(), stream.size());
  ogg_sync_wrote(&sync, static_cast<long>(stream.size()));
  std::size_t at = 0;
  int ended = 0;
  ogg_page page;
  for (long number = 0; at < stream.size(); ++number) {
    FUZZ_CHECK(ogg_sync_pageout(&sync, &page) == 1);
    at += static_cast<std::size_t>(page.header_len + page.body_len);
    const int ending = ogg_page_packets(&page);
    ended += ending;
    FUZZ_CHECK(ogg_page_pageno(&page) == number && ogg_page_serialno(&page) == 0);
    FUZZ_CHECK((ogg_page_bos(&page) != 0) == (number == 0) && (ogg_page_eos(&page) != 0) == (at == stream.size()));
    FUZZ_CHECK(number >= 2 || ended == number + 1);
    FUZZ_CHECK(ogg_page_granulepos(&page) == (ending == 0 ? -1 : kGranules * std::max(ended - 2, 0)));
  }
  ogg_sync_clear(&sync);
}

// Takes the packets as they come to the decoder; decodes to silence.
int TakePacket(void* packets, OpusMSDecoder*, void* pcm, const ogg_packet* packet, int samples, int channels, int,
               int) {
  FUZZ_CHECK(samples == kGranules && channels == 1);
  static_cast<Packets*>(packets)->emplace_back(reinterpret_cast<const char*>(packet->packet), packet->bytes);
  std::fill_n(static_cast<float*>(pcm), samples, 0.0F);
  return 0;
}

void CheckPackets(const std::string& stream, const Packets& packets) {
  const std::unique_ptr<OggOpusFile, decltype(&op_free)> file(
      op_open_memory(reinterpret_cast<const unsigned char*>(stream.data()), stream.size(), nullptr), op_free);
  FUZZ_CHECK(file != nullptr && op_head(file.get(), -1)->input_sample_rate == 16000);
  FUZZ_CHECK(op_pcm_total(file.get(), -1) == kGranules * static_cast<std::int64_t>(packets.size()));
  Packets read;
  op_set_decode_callback(file.get(), TakePacket, &read);
  std::vector<float> pcm(kGranules);
  int samples = 0;
  do {
    samples = op_read_float(file.get(), pcm.data(), static_cast<int>(pcm.size()), nullptr);
    FUZZ_CHECK(samples >= 0);
  } while (samples > 0);
  FUZZ_CHECK(read == packets);
}

// One stream through `formatter`; false when an output was too small for a page.
bool RunStream(fuzz::Input& input, OggFormatter* formatter, std::int32_t capacity, bool must_fit) {
  std::string stream;
  std::vector<std::uint8_t> output(static_cast<std::size_t>(capacity));
  const auto append = [&](auto write) {
    const std::int32_t written = write(output.data());
    FUZZ_CHECK(written < std::max(capacity, 1) && (written >= 0 || !must_fit));
    if (written > 0) stream.append(output.begin(), output.begin() + written);
    return written >= 0;
  };

  if (!append([&](auto* out) { return zelContainerFormatterOgg_WriteHeaders(formatter, out, capacity); })) return false;
  Packets packets;
  for (std::size_t bytes = 0; !input.empty() && packets.size() < kMaxPackets && bytes < kMaxStream;) {
    const auto size =
        static_cast<std::int32_t>(input.below(static_cast<std::uint32_t>(formatter->holding_capacity) + 2));
    if (size == 0) break;
    const std::string packet = MakePacket(static_cast<std::size_t>(size), packets.size());
    const OggFormatterPacket record = {reinterpret_cast<const std::uint8_t*>(packet.data()), size, kSamples};
    if (size > formatter->holding_capacity) {
      FUZZ_CHECK(zelContainerFormatterOgg_WritePacket(formatter, &record, nullptr, 0) == -1);
      continue;
    }
    if (!append([&](auto* out) { return zelContainerFormatterOgg_WritePacket(formatter, &record, out, capacity); }))
      return false;
    FUZZ_CHECK(zelContainerFormatterOgg_GetTotalSize(formatter) == -1);
    packets.push_back(packet);
    bytes += packet.size();
  }
  if (packets.empty()) {
    FUZZ_CHECK(zelContainerFormatterOgg_Flush(formatter, nullptr, 0) == -1);
    return true;
  }
  if (!append([&](auto* out) { return zelContainerFormatterOgg_Flush(formatter, out, capacity); })) return false;
  FUZZ_CHECK(zelContainerFormatterOgg_GetTotalSize(formatter) == static_cast<std::int32_t>(stream.size()));
  CheckPages(stream);
  CheckPackets(stream, packets);
  return true;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static fuzz::PluginHost host;
  fuzz::Input input(data, size);
  const std::int32_t limit = kLimits[input.below(std::size(kLimits))];
  // The recognizer's chunk, what holds any page, or whatever the input says.
  const std::uint32_t room = input.below(4);
  const std::int32_t ample = limit == 256 ? 5120 : 65536;
  const auto capacity = room > 0 ? ample : static_cast<std::int32_t>(input.below(6000));

  const ZelContainerFormatterOggConfig config = {
      .sampling_rate = 16000, .num_channels = 1, .max_buffer_size_per_write = limit};
  const std::int32_t work_size = zelContainerFormatterOgg_CalculateWorkSize(&config);
  std::vector<std::uint64_t> work(static_cast<std::size_t>(work_size) / sizeof(std::uint64_t) + 1);
  OggFormatter* formatter = zelContainerFormatterOgg_Create(&config, work.data(), work_size);
  FUZZ_CHECK(formatter != nullptr);
  bool whole = true;
  while (whole && !input.empty())
    whole = RunStream(input, formatter, capacity, room > 0);
  FUZZ_CHECK(whole || !host.take_reports().empty());
  host.take_reports();
  return 0;
}
