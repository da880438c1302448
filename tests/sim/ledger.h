// What must have become of everything a member said, worked out from outside: from the frames that were fed, the chunks
// that moved through the ring buffer, what the service was asked and answered, and the packets that were popped. Every
// step of the plug-in is held against it.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ring.h"
#include "scheduler.h"
#include "zel_rtc_speech_to_text_host.h"

namespace sim {

struct Event;

inline constexpr std::size_t kMaxWaiting = 8;
inline constexpr std::uint32_t kMaxBody = 81920, kMaxUrl = 1023, kMaxHeaderValue = 511;

// An Opus packet of the simulation; its bytes follow from serial and size.
struct Packet {
  std::uint32_t serial, size;
  bool operator==(const Packet&) const = default;
};
std::string PacketBytes(Packet packet);

// A setting that another thread may be changing: until that call has returned, both values are right.
struct Setting {
  std::uint32_t value = 0;
  std::optional<std::uint32_t> pending = {};
  std::uint32_t changes = 0;  // calls begun and ended
  Micros changed_at = 0;      // the last of them

  void Begin(std::uint32_t wanted);
  void End(bool stored);
};

// What is to become of an utterance that has been posted.
enum class Fate { kOpen, kText, kEmpty, kFailed };

struct Utterance {
  std::vector<Packet> packets;
  bool damaged = false;           // the ring buffer gave less than asked: pages may be missing
  std::uint32_t bytes = 0;        // of its stream
  bool started = false;           // handed to the worker
  std::vector<std::string> urls;  // that its request may have: several while the language is being changed
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
  bool updating = false;
};

// What has become of utterances.
enum Count {
  kEnded,
  kTooShort,
  kNinth,
  kIncomplete,
  kDropped,
  kStored,
  kPosted,
  kDelivered,
  kEmpty,
  kFailed,
  kReset,
  kPopped,
  kCounts
};
inline constexpr const char* kCountNames[kCounts] = {"ended",  "too short", "ninth", "incomplete", "dropped", "stored",
                                                     "posted", "delivered", "empty", "failed",     "reset",   "popped"};
using Counts = std::array<std::uint64_t, kCounts>;
Counts& UtteranceTotals();  // of all sessions that this process has seen

// One recognizer. "Seat", because members come and go.
class Seat {
 public:
  Seat(const RoomSettings& settings, std::string name, int& session_live)
      : live(session_live), settings_(settings), name_(std::move(name)) {}

  // ---- The room's side
  SttRecognizerHn handle = nullptr;
  bool joined = false;       // frames may be put, packets popped
  std::uint32_t visits = 0;  // members so far
  std::uint32_t member_id = 0;
  std::string client_id;
  Setting language, enabled{.value = 1};
  bool resetting = false;   // the host has asked for a reset or a release and not had an answer
  bool destroying = false;  // the session is being created or destroyed
  Gate frames, pops;        // held during calls that must not overlap a release
  std::uint32_t held = 0;   // packets in the host's hands

  // Around PutAudioFrame; `too_long`: a packet the container must refuse.
  void BeginFrame(std::optional<Packet> audio, bool too_long);
  void EndFrame(bool taken);
  // Around PopTextPacket.
  void BeginPop();
  void EndPop(const PacketRef* packet);
  // The recognizer went back to its session.
  void Left();

  // ---- The services' side
  std::unique_ptr<Ring> ring;
  const void* end = nullptr;  // of its part of the session's work area
  const Event* wake = nullptr;
  void Worked();  // the audio path used the ring buffer
  void RingFellShort(std::uint32_t lane);
  bool TakeShortage();  // whether a page may have found no room
  void TookStream(std::uint32_t bytes, bool whole);
  void GaveStreamBack();
  void DroppedAudio();
  void Started();
  void Answered();
  void RingWasReset();
  void TakeUpdateReport(const std::string& text);
  void CheckBalance() const;

  // ---- The service's side: the utterance that it is asked about
  Utterance& Posted();
  const std::string& name() const { return name_; }
  Counts counts{};
  int& live;  // objects of the session

 private:
  void Expect(bool sound, const char* what) const;
  void AccountFrame();  // what a frame that was taken changes
  void TakeOffer();

  const RoomSettings& settings_;
  const std::string name_;

  // The frame under way, and the utterance it belongs to.
  std::optional<Packet> offer_;
  bool is_audio_ = false, too_long_ = false;
  bool was_full_ = false;   // eight utterances waited when the call began
  bool took_ = false;       // the call has taken the whole stream out of lane 1, and not given it back
  bool ninth_ = false;      // ... although eight waited
  bool worked_ = false;     // the call has used the ring buffer
  bool accounted_ = false;  // its effect is in the ledger already
  std::vector<std::string>* reports_ = nullptr;  // of the thread that puts it
  std::uint32_t enabled_changes_ = 0;
  Utterance current_;
  std::uint32_t frames_ = 0, silent_ = 0;

  std::uint32_t freed_in_ = 0;  // the update that last freed an utterance
  bool shortage_ = false;
  bool partial_ = false;  // a part of a stream is out, to be given back
  std::deque<Utterance> waiting_;
  std::deque<std::string> texts_;  // delivered, not yet popped
  std::uint64_t last_time_ = 0;
  std::uint32_t resets_ = 0, resets_before_pop_ = 0;
  bool had_text_ = false;  // when the pop began
};

}  // namespace sim
