// Packs the Opus packets of one utterance into a complete Ogg Opus stream (RFC 7845 over RFC 3533), page by page, in
// buffers of the caller.
//
// Each stream: WriteHeaders, any number of WritePacket, Flush, GetTotalSize. One packet is held back, so that the last
// one can be marked as the end of the stream. All storage, libogg's included, lies in work memory; nothing is
// allocated. Thread rule: none inside; one caller at a time. Invariant: libogg never meets a packet that its storage
// cannot take, because growing it would reallocate work memory.
#pragma once

#include <ogg/ogg.h>

#include <cstdint>

struct ZelContainerFormatterOggConfig {
  std::int32_t
      sampling_rate;          // Hz of the audio that the packets encode, 1 to 48000; headers are defined for 16000 only
  std::int32_t num_channels;  // not read: streams are mono
  std::int32_t max_buffer_size_per_write;  // bytes of the longest packet, 1 to 8192
};

struct OggFormatterPacket {
  const std::uint8_t* data;
  std::int32_t size;      // bytes
  std::int32_t duration;  // samples at the sampling rate
};

struct OggFormatter {
  std::int32_t sampling_rate;
  std::uint8_t* identification;        // the OpusHead packet
  std::int32_t identification_length;  // -1 for a sampling rate without one
  std::uint8_t* comment;               // the OpusTags packet
  std::int32_t comment_length;
  ogg_stream_state stream;        // serial number 0; storage in the work memory
  std::int64_t packet_counter;    // number of the next packet
  std::int64_t granule_position;  // 48 kHz samples submitted since the stream began
  std::uint8_t* held_data;
  std::int32_t held_size;
  std::int32_t held_duration;     // samples at the sampling rate
  std::int32_t holding_capacity;  // bytes of held_data
  std::int32_t held;              // 1 while a packet is held back
  std::int32_t total_written;     // bytes of all pages copied out since the stream began
  // Private from here on.
  std::int32_t granules_per_sample;  // whole 48 kHz samples; kept because a packet should not pay for a division
};

// Bytes of work memory.
std::int32_t zelContainerFormatterOgg_CalculateWorkSize(const ZelContainerFormatterOggConfig* config);

// Builds a formatter in `work`. Null, without a report, for values out of range, an area that is null or too small, or
// a failed carve.
OggFormatter* zelContainerFormatterOgg_Create(const ZelContainerFormatterOggConfig* config, void* work,
                                              std::int32_t work_size);

// Nothing to release; 1.
std::int32_t zelContainerFormatterOgg_Destroy(OggFormatter* formatter);

// All three return the bytes written to `output`, or -1 after a report. A page needs one byte more than its own length.

// Begins a stream: identification page and comment page.
std::int32_t zelContainerFormatterOgg_WriteHeaders(OggFormatter* formatter, std::uint8_t* output,
                                                   std::int32_t capacity);

// Takes one packet; writes at most one page. After a page that did not fit (E2022103100) that page is lost, the offered
// packet is held all the same. A packet that is too long (E2022110200) changes nothing.
std::int32_t zelContainerFormatterOgg_WritePacket(OggFormatter* formatter, const OggFormatterPacket* packet,
                                                  std::uint8_t* output, std::int32_t capacity);

// Ends the stream: all that is left, the last page marked. Without any packet: E2022110231.
std::int32_t zelContainerFormatterOgg_Flush(OggFormatter* formatter, std::uint8_t* output, std::int32_t capacity);

// Bytes of the whole stream once a flush has ended it, otherwise -1.
std::int32_t zelContainerFormatterOgg_GetTotalSize(OggFormatter* formatter);
