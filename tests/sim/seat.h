// One recognizer as seen from outside ("seat", because members come and go), and what must have become of everything
// its members said: worked out from the frames that were fed, the chunks that moved through the ring buffer, what the
// service was asked and answered, and the packets that were popped. Every step of the plug-in is held against it.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ledger.h"
#include "scheduler.h"
#include "zel_rtc_speech_to_text_host.h"

namespace sim {

// An Opus packet of the simulation; its bytes follow from serial and size.
struct Packet {
  std::uint32_t serial, size;
};
std::string PacketBytes(Packet packet);

// A setting that another thread may be changing: until that call has returned, both values are right.
struct Setting {
  std::uint32_t value = 0;
  std::optional<std::uint32_t> pending = {};
  Micros changed_at = 0;  // a call began or ended last

  void Begin(std::uint32_t wanted);
  void End(bool stored);
};

// What is to become of an utterance that has been posted.
enum class Fate { kOpen, kText, kEmpty, kFailed };

struct Utterance {
  std::vector<Packet> packets;
  bool damaged = false;           // the ring buffer gave less than asked: pages may be missing
  std::uint32_t bytes = 0;        // of its stream
  std::vector<std::string> urls;  // that its request may have: several while the language is being changed; none: not
                                  // handed to the worker
  std::string authorization;
  Fate fate = Fate::kOpen;
  std::string text;         // to be delivered
  std::string owed_report;  // the update still has to make
  bool delivered = false;   // popped already
  bool lost = false;        // not deliverable, as a report has said
};

// What a session's room has set, and what its texts are held against.
struct RoomSettings {
  std::string endpoint, authorization;
  std::uint32_t max_packets = 16, max_text = 1200;
  Micros attached_at = 0, update_began = 0;
  std::uint32_t updates = 0;
  bool attached = false;  // otherwise it is being created or destroyed
  bool updating = false;
};

inline zel::host::MemberLedger ledger_totals;  // of all sessions that this process has seen

class Seat {
 public:
  Seat(const RoomSettings& settings, std::string title, int& session_live, std::uint32_t ring_bytes)
      : name(std::move(title)), live(session_live), settings_(settings), ring_bytes_(ring_bytes) {}

  // ---- The room's side
  const std::string name;
  SttRecognizerHn handle = nullptr;
  bool joined = false;  // frames may be put, packets popped
  std::uint32_t member_id = 0;
  std::string client_id;
  Setting language, enabled{.value = 1};
  bool resetting = false;  // the host has asked for a reset or a release and not had an answer
  Gate frames, pops;       // held during calls that must not overlap a release
  std::uint32_t held = 0;  // packets in the host's hands
  zel::host::MemberLedger ledger;

  void Put(std::optional<Packet> audio);
  PacketRef* Pop();
  // The recognizer went back to its session.
  void Left();

  // ---- The services' side
  int& live;                  // objects of the session
  const void* end = nullptr;  // of its part of the session's work area
  void Started();             // a request
  void TakeUpdateReport(const std::string& text);
  bool TakeShortage();  // whether a page may have found no room
  void CheckBalance();

  // The ring buffer, as strict as the bridge's contract allows: every chunk is a block of its own, so that a sanitizer
  // sees each step beyond it, and is overwritten when it comes back; only what is out can come back.
  ZelRingBufferChunk Acquire(std::uint32_t lane, std::uint32_t size);
  void TakeBack(std::uint32_t lane, const ZelRingBufferChunk& part, bool released);  // or committed
  void ResetRing();
  std::uint32_t RingSize(std::uint32_t lane) const;
  // Chunks that are out of a lane, taken by updates or by the audio path.
  std::size_t Out(std::uint32_t lane, bool by_update) const;

  // ---- The service's side: the utterance that it is asked about
  Utterance& Posted();

 private:
  struct Chunk {
    std::unique_ptr<std::uint8_t[]> bytes;
    std::uint32_t size, out, lane;
    bool by_update;
  };

  void Expect(bool sound, const char* what) const;
  void UseRing();
  void FallShort(std::uint32_t lane);
  void TakeStream(std::uint32_t bytes);
  void GiveStreamBack();
  void DropAudio();
  void Answer();
  void AccountFrame();  // what a frame that was taken changes

  const RoomSettings& settings_;
  const std::uint32_t ring_bytes_;
  std::vector<std::uint8_t> data_;  // lane 1
  std::vector<Chunk> chunks_;       // those out, oldest first

  // The frame under way, and the utterance it belongs to.
  std::optional<Packet> offer_;
  bool is_audio_ = false;
  bool was_full_ = false;                        // eight utterances waited when the call began
  bool took_ = false;                            // the call has taken the whole stream out of lane 1
  bool ninth_ = false;                           // ... while eight utterances waited
  bool worked_ = false;                          // the call has used the ring buffer
  bool accounted_ = false;                       // its effect is in the ledger already
  std::vector<std::string>* reports_ = nullptr;  // of the thread that puts it
  Utterance current_;
  std::uint32_t frames_ = 0, silent_ = 0;

  std::uint32_t freed_in_ = 0;  // the update that last freed an utterance
  bool shortage_ = false;
  bool partial_ = false;  // a part of a stream is out, to be given back
  std::deque<Utterance> waiting_;
  std::deque<std::string> texts_;  // delivered, not yet popped
  std::uint64_t last_time_ = 0;
  std::uint32_t resets_ = 0;
};

}  // namespace sim
