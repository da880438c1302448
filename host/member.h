// One member as the room keeps it: the utterance being spoken, the recognizer lent to it, and its ledger.
//
// How the room knows. An utterance that the plug-in has stored for posting is one chunk that left lane 1 of the
// member's ring buffer; when it has been answered, for better or worse, that chunk is committed to lane 0. The ring
// buffer counts both: looking at the counts around each frame and each update shows what was stored, dropped and
// answered. Which ring buffer is the member's shows the first audio frame, by the one it touches. An update works
// through the recognizers one after the other and reads last of each the word that every frame reads first, whether the
// member is enabled; so a report belongs to the member whose word is read next. A failed exchange is reported one
// update before its utterance is given back, a text that cannot be delivered in the same one.
//
// Thread rule: the room's lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <optional>
#include <span>
#include <variant>

#include "ledger.h"
#include "ring_buffer.h"
#include "room.h"

namespace zel::host {

using Packet = std::span<const std::uint8_t>;

// What the room will tell the application. A list: an event moves on without memory.
using Events = std::list<std::variant<RoomText, MemberLedger>>;

// The utterance that a member is speaking, as the plug-in keeps it.
struct Utterance {
  std::uint32_t audio_frames = 0;
  std::uint64_t payload = 0;  // bytes of its packets
  std::uint64_t lacing = 0;   // bytes that say how long they are

  void add(Packet packet);
  // At least the length of its Ogg stream.
  std::uint64_t max_stream_size() const;
  // A frame so small beside the others that nothing is being said in it.
  bool is_quiet(Packet packet) const;
};

struct Member {
  MemberLedger ledger;
  SttRecognizerHn recognizer = nullptr;
  const std::uint32_t* enabled_word = nullptr;  // null until the first frame
  RingBuffer* ring = nullptr;                   // null until the first audio frame
  RingStatistics ring_seen;                     // at the last look
  Utterance utterance;
  std::uint32_t silent_frames = 0;
  bool posting = false;  // the oldest waiting utterance is under way
  // Indices into kFailureReports.
  std::optional<std::size_t> exchange_failure;  // of the utterance that the next update gives back
  std::optional<std::size_t> started_failure;   // the same, reported in the update under way
  std::optional<std::size_t> text_failure;      // of the utterance that the update under way gives back
  bool leaving = false;
  std::chrono::steady_clock::time_point deadline;
  Events next_text;                             // memory for the text that an update may bring: one element, or none
  Events farewell = Events(1, MemberLedger());  // for the ledger

  bool has_slot() const { return ledger.waiting < kMaxWaiting; }
  bool has_headroom() const;

  // One frame as Room::feed takes it.
  FrameResult take_frame(Packet packet);
  // Ends the utterance with as many silent frames as that takes. False when it cannot be ended: the member is disabled.
  bool put_pause();
  // A report of the update under way: an index into kFailureReports.
  void note_failure(std::size_t report);
  // What the update has done; `texts`: how many it gave, at most one.
  void settle(std::size_t texts);
  // The recognizer has been reset: what is being spoken or waits is lost.
  void lose_all();

 private:
  struct RingChange {
    std::uint32_t taken = 0;
    std::uint32_t returned = 0;
  };

  RingChange look_at_ring();
  void drop_utterance();
  bool can_take(Packet packet) const;
  bool put(Packet packet);
};

}  // namespace zel::host
