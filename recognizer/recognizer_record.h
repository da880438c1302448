// The record of one recognizer, shared by the sources of this folder.
//
// Invariants:
//  1. Lane 1 of the ring buffer holds exactly the pages of the current stream written so far.
//  2. Slots are filled at fill_index and posted at send_index; both go round. A slot's bytes return to lane 0 only
//     when the request that posted them has ended, so a request's body stays valid while it is in flight.
//  3. A slot's byte count is its ownership word: 0 gives the slot to the audio path, anything else to the update. It
//     is read and written through the atomic services, the data pointer before it.
//  4. utterance_length is 0 exactly when no frame with audio has been taken since the current stream began.
//  5. mutex guards packet_queue, text_blocks and the packets of the pool; it is taken inside the session's mutex,
//     never the other way round, and it is recursive.
//  6. SttRecognizerHandle::pending is 0 only when an update would change nothing: the request idle, the slot at
//     send_index free, the member enabled. Whoever ends that sets it afterwards; the update clears it before it looks.
//  7. While audio_busy is 1 the audio path owns the current stream. The update of a disabled member touches it only
//     after it has seen 0; the audio path sets 1 before it reads enabled, so one of the two sees the other.
#pragma once

#include "zel_rtc_speech_to_text_host.h"

struct OggFormatter;
struct PtrStack;
struct SttPacketPool;
struct SttRequest;

inline constexpr int32_t kSttUtteranceSlots = 8;
inline constexpr uint32_t kSttClientIdSize = 512;

// What a SttRecognizerHn leads to. A session's update reads no more than this of a recognizer that has nothing to do,
// and the session's list node lies right in front of it.
struct SttRecognizerHandle {
  SttRecognizerPair pair;  // all that the host sees
  uint32_t pending;        // atomic; 1 when an update may find something to do
};

struct SttRecognizer {
  uint32_t member_id;                                      // the host's; 0xFFFFFFFF when none has been set
  char client_id[kSttClientIdSize];                        // the host's bytes, read as a NUL-terminated string
  uint32_t client_id_end;                                  // 0: ends a client id that fills its field
  OggFormatter* formatter;                                 // of the stream being built
  void* ring_buffer;                                       // lane 0 free bytes, lane 1 the stream being built
  ZelRingBufferChunk utterance_slots[kSttUtteranceSlots];  // finished streams waiting to be posted
  int32_t send_index;                                      // slot being posted or next to post
  int32_t fill_index;                                      // slot of the next finished utterance
  int32_t silent_frames;           // consecutive frames without audio; relaxed, cleared by the update as well
  int32_t utterance_length;        // samples at 16 kHz in the current utterance
  SttPacketPool* packet_pool;      // max_queueing_messages packets
  PtrQueue* packet_queue;          // text packets waiting for the host
  PtrStack* text_blocks;           // free text blocks
  void* mutex;                     // recursive
  uint32_t max_text_message_size;  // bytes of one text block
  uint64_t time_base;              // timer count of time zero
  SttRequest* request;
  uint32_t enabled;   // atomic; 0 disables
  uint32_t language;  // 0 to 2
  // Private from here on.
  SttRecognizerHandle* handle;
  uint32_t stream_begun;  // 1 while lane 1 starts with the header pages of the current stream
  uint32_t audio_busy;    // atomic; 1 while the audio path works on the current stream
};
