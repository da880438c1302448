#include "ogg_formatter.h"

#include <cstring>

#include "bridge.h"

namespace {

constexpr std::int32_t kHeaderBufferSize = 32;
constexpr std::int32_t kBodyStorage = 16384;
constexpr std::int32_t kLacingStorage = 1024;
constexpr std::int32_t kOggRate = 48000;  // granule positions count samples at this rate (RFC 7845, section 4)
constexpr std::int32_t kMaxPacket = kBodyStorage / 2;  // what a forced page leaves behind leaves room for one more

constexpr std::int32_t kIdentificationLength = 19;
constexpr std::int32_t kCommentLength = 16;
// Version 1, one channel, pre-skip 0, then for 16 kHz: input rate, output gain 0, mapping family 0 (RFC 7845,
// section 5.1).
constexpr std::uint8_t kIdentification[kIdentificationLength] = {'O', 'p', 'u',  's',  'H', 'e', 'a', 'd', 1, 1,
                                                                 0,   0,   0x80, 0x3E, 0,   0,   0,   0,   0};
constexpr std::size_t kIdentificationCommonPart = 12;
// No vendor, no comments (RFC 7845, section 5.2).
constexpr std::uint8_t kComment[kCommentLength] = {'O', 'p', 'u', 's', 'T', 'a', 'g', 's'};

bool CarveParts(ZelFixedAllocatorRecord* carving, OggFormatter* formatter, std::int32_t holding_capacity) {
  formatter->identification = static_cast<std::uint8_t*>(zelFixedAllocator_Allocate(carving, kHeaderBufferSize, 1));
  formatter->comment = static_cast<std::uint8_t*>(zelFixedAllocator_Allocate(carving, kHeaderBufferSize, 1));
  formatter->held_data =
      static_cast<std::uint8_t*>(zelFixedAllocator_Allocate(carving, static_cast<std::uint32_t>(holding_capacity), 1));
  ogg_stream_state& stream = formatter->stream;
  stream.body_data = static_cast<unsigned char*>(zelFixedAllocator_Allocate(carving, kBodyStorage, 1));
  stream.lacing_vals =
      static_cast<int*>(zelFixedAllocator_Allocate(carving, kLacingStorage * sizeof(int), sizeof(int)));
  stream.granule_vals = static_cast<ogg_int64_t*>(
      zelFixedAllocator_Allocate(carving, kLacingStorage * sizeof(ogg_int64_t), sizeof(ogg_int64_t)));
  stream.body_storage = kBodyStorage;
  stream.lacing_storage = kLacingStorage;
  return formatter->identification != nullptr && formatter->comment != nullptr && formatter->held_data != nullptr &&
         stream.body_data != nullptr && stream.lacing_vals != nullptr && stream.granule_vals != nullptr;
}

void BuildHeaderPackets(OggFormatter* formatter) {
  const bool defined = formatter->sampling_rate == 16000;
  std::memcpy(formatter->identification, kIdentification, defined ? kIdentificationLength : kIdentificationCommonPart);
  formatter->identification_length = defined ? kIdentificationLength : -1;
  std::memcpy(formatter->comment, kComment, kCommentLength);
  formatter->comment_length = kCommentLength;
}

std::int32_t RefusePage() {
  zelErr_Notify(ZEL_ERR_LEVEL_ERROR,
                "E2022103100:Failed to write buffer because it is not enough buffer length of out data.");
  return -1;
}

// Copies a page out: its bytes, or -1 after a report.
std::int32_t CopyPage(const ogg_page* page, std::uint8_t* output, std::int32_t capacity) {
  const std::int64_t body_capacity = std::int64_t{capacity} - page->header_len;
  if (body_capacity <= 0) return RefusePage();
  zelMemory_Copy(output, static_cast<std::uint64_t>(capacity), page->header,
                 static_cast<std::uint64_t>(page->header_len));
  if (body_capacity - page->body_len <= 0) return RefusePage();
  zelMemory_Copy(output + page->header_len, static_cast<std::uint64_t>(body_capacity), page->body,
                 static_cast<std::uint64_t>(page->body_len));
  return static_cast<std::int32_t>(page->header_len + page->body_len);
}

// Puts a header packet on a page of its own: the page's bytes, 0 when libogg refuses the packet, -1 when it does not
// fit.
std::int32_t WriteHeaderPage(OggFormatter* formatter, std::uint8_t* data, std::int32_t length, std::uint8_t* output,
                             std::int32_t capacity) {
  ogg_packet packet{};
  packet.packet = data;
  packet.bytes = length;
  packet.b_o_s = formatter->packet_counter == 0 ? 1 : 0;
  packet.packetno = formatter->packet_counter++;
  ogg_stream_packetin(&formatter->stream, &packet);
  ogg_page page;
  if (ogg_stream_flush(&formatter->stream, &page) == 0) return 0;
  return CopyPage(&page, output, capacity);
}

void SubmitHeldPacket(OggFormatter* formatter, bool last) {
  formatter->granule_position += std::int64_t{formatter->granules_per_sample} * formatter->held_duration;
  ogg_packet packet;
  packet.packet = formatter->held_data;
  packet.bytes = formatter->held_size;
  packet.b_o_s = 0;
  packet.e_o_s = last ? 1 : 0;
  packet.granulepos = formatter->granule_position;
  packet.packetno = formatter->packet_counter++;
  ogg_stream_packetin(&formatter->stream, &packet);
}

// A page that libogg has finished; when the next packet might not fit, also one that it would still collect: everything
// queued, up to the 255 lacing values of a page.
bool TakePage(OggFormatter* formatter, ogg_page* page) {
  ogg_stream_state* stream = &formatter->stream;
  const bool crowded = stream->body_fill - stream->body_returned + formatter->holding_capacity >= stream->body_storage;
  return (crowded ? ogg_stream_flush_fill(stream, page, kBodyStorage) : ogg_stream_pageout(stream, page)) != 0;
}

}  // namespace

std::int32_t zelContainerFormatterOgg_CalculateWorkSize(const ZelContainerFormatterOggConfig* config) {
  ZelWorkSizeRecord size;
  zelWorkSize_Begin(&size);
  zelWorkSize_Add(&size, sizeof(OggFormatter), 1, 8);
  zelWorkSize_Add(&size, kHeaderBufferSize, 1, 1);
  zelWorkSize_Add(&size, kHeaderBufferSize, 1, 1);
  zelWorkSize_Add(&size, config->max_buffer_size_per_write, 1, 1);
  zelWorkSize_Add(&size, kBodyStorage, 1, 1);
  zelWorkSize_Add(&size, sizeof(int), kLacingStorage, 4);
  zelWorkSize_Add(&size, sizeof(ogg_int64_t), kLacingStorage, 8);
  return zelWorkSize_Result(&size);
}

OggFormatter* zelContainerFormatterOgg_Create(const ZelContainerFormatterOggConfig* config, void* work,
                                              std::int32_t work_size) {
  if (config->sampling_rate < 1 || config->sampling_rate > kOggRate) return nullptr;
  if (config->max_buffer_size_per_write < 1 || config->max_buffer_size_per_write > kMaxPacket) return nullptr;
  const std::int32_t required = zelContainerFormatterOgg_CalculateWorkSize(config);
  if (work == nullptr || required < 0 || work_size < required) return nullptr;

  zelMemory_Clear(work, static_cast<std::uint64_t>(work_size));
  ZelFixedAllocatorRecord carving;
  zelFixedAllocator_Create(work, work_size, &carving);
  auto* formatter = static_cast<OggFormatter*>(zelFixedAllocator_Allocate(&carving, sizeof(OggFormatter), 8));
  const bool carved = formatter != nullptr && CarveParts(&carving, formatter, config->max_buffer_size_per_write);
  zelFixedAllocator_Destroy(&carving);
  if (!carved) return nullptr;

  formatter->sampling_rate = config->sampling_rate;
  formatter->granules_per_sample = kOggRate / config->sampling_rate;
  formatter->holding_capacity = config->max_buffer_size_per_write;
  BuildHeaderPackets(formatter);
  return formatter;
}

std::int32_t zelContainerFormatterOgg_Destroy(OggFormatter*) {
  return 1;
}

std::int32_t zelContainerFormatterOgg_WriteHeaders(OggFormatter* formatter, std::uint8_t* output,
                                                   std::int32_t capacity) {
  ogg_stream_reset(&formatter->stream);
  formatter->packet_counter = 0;
  formatter->granule_position = 0;
  formatter->held = 0;
  formatter->total_written = 0;

  const std::int32_t first =
      WriteHeaderPage(formatter, formatter->identification, formatter->identification_length, output, capacity);
  if (first < 0) return -1;
  const std::int32_t second =
      WriteHeaderPage(formatter, formatter->comment, formatter->comment_length, output + first, capacity - first);
  if (second < 0) return -1;
  formatter->total_written = first + second;
  return formatter->total_written;
}

std::int32_t zelContainerFormatterOgg_WritePacket(OggFormatter* formatter, const OggFormatterPacket* packet,
                                                  std::uint8_t* output, std::int32_t capacity) {
  if (packet->size < 0 || packet->size > formatter->holding_capacity) {
    zelErr_Notify(ZEL_ERR_LEVEL_ERROR,
                  "E2022110200:Failed to write buffer. Please increase "
                  "ZelContainerFormatterOggConfig::max_buffer_size_per_write.");
    return -1;
  }
  std::int32_t written = 0;
  if (formatter->held == 1) {
    SubmitHeldPacket(formatter, false);
    ogg_page page;
    if (TakePage(formatter, &page)) written = CopyPage(&page, output, capacity);
    if (written > 0) formatter->total_written += written;
  }
  formatter->held = 1;
  formatter->held_size = packet->size;
  formatter->held_duration = packet->duration;
  zelMemory_Copy(formatter->held_data, static_cast<std::uint64_t>(formatter->holding_capacity), packet->data,
                 static_cast<std::uint64_t>(packet->size));
  return written;
}

std::int32_t zelContainerFormatterOgg_Flush(OggFormatter* formatter, std::uint8_t* output, std::int32_t capacity) {
  if (formatter->held != 1) {
    zelErr_Notify(ZEL_ERR_LEVEL_ERROR, "E2022110231:Failed to flush audio data. Audio data does not exist.");
    return -1;
  }
  SubmitHeldPacket(formatter, true);
  // libogg cuts a page once 4096 bytes are queued, so the end of the stream can be on a second one.
  std::int32_t written = 0;
  ogg_page page;
  while (ogg_stream_flush(&formatter->stream, &page) != 0) {
    const std::int32_t bytes = CopyPage(&page, output + written, capacity - written);
    if (bytes < 0) return -1;
    written += bytes;
  }
  formatter->total_written += written;
  return written;
}

std::int32_t zelContainerFormatterOgg_GetTotalSize(OggFormatter* formatter) {
  return ogg_stream_eos(&formatter->stream) > 0 ? formatter->total_written : -1;
}
