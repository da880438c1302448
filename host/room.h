// A voice room that has one speech-to-text session attached and drives it the way a host does: it lends every member a
// recognizer, feeds it 40 ms frames, drives the session's update, and hands recognized texts to the application.
//
//   zel::host::Library library;                      // library.h: bridge services and library initialization
//   zel::host::Session session;
//   zel::host::Room room(session.handle(), {.text = [](const RoomText& text) { ... }});
//   room.set_endpoint("http://127.0.0.1:8080/v1/recognize");
//   room.set_token("secret");
//   room.add_member(7, "alice");
//   session.set_language("alice", ZEL_RTC_SPEECH_TO_TEXT_LANGUAGE_EN_US);
//   every 40 ms: room.feed(7, packet); room.pump();
//   room.begin_leave(7);                             // pump goes on until the last words have arrived
//   room.close();
//
// The session must run on the bridge services of this folder: the room learns from them what became of each utterance
// (ledger.h says what is counted, member.h how). The session must outlive the room.
//
// Thread rule. Every operation may be called from any thread. feed is meant for audio threads: it never throws and
// never waits for the service. pump, reset, add_member and the setters wait while a recognizer is taken back, which
// lasts as long as an exchange that is cut off by its leave deadline. Events are called on the thread that pumps, with
// no lock of the room held: they may call every operation but pump, leave and close. They come in order as long as one
// thread at a time pumps, leaves or closes.
//
// Errors. feed answers with a FrameResult. All other operations throw RoomError or, without memory, std::bad_alloc, and
// have changed nothing then; but members go on leaving when leave or close fails while it pumps. The recognition's own
// errors arrive as reports (reports.h) and in the members' ledgers.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "ledger.h"
#include "zel_rtc_speech_to_text.h"
#include "zel_rtc_speech_to_text_host.h"

namespace zel::host {

/** Duration of one frame. */
inline constexpr std::chrono::milliseconds kFrameDuration{40};
/** Longest Opus packet of one frame, bytes. */
inline constexpr std::size_t kMaxPacketSize = 256;
/** Utterances of one member that can wait for the service. */
inline constexpr std::size_t kMaxWaiting = 8;
/** How long a leaving member's utterances are waited for unless said otherwise. */
inline constexpr std::chrono::milliseconds kDrainTime{30'000};

/** Why a room operation was refused. */
enum class RoomErrorCode {
  kClosed,            ///< the room has been closed
  kSessionInUse,      ///< the session is null or attached to another room
  kInvalidArgument,   ///< a string that is empty, too long or holds a NUL
  kDuplicateMember,   ///< member id or client id in use, perhaps by a member who is still leaving
  kNoSuchMember,      ///< no member with that id
  kNoFreeRecognizer,  ///< the session's max_identifiable_members are all in the room
};

class RoomError : public std::runtime_error {
 public:
  RoomError(RoomErrorCode code, const std::string& what) : std::runtime_error(what), code_(code) {}
  RoomErrorCode code() const noexcept { return code_; }

 private:
  RoomErrorCode code_;
};

/** What became of a frame. */
enum class FrameResult {
  kTaken,
  kDisabled,  ///< the application has disabled the member; the frame was dropped
  /// Nothing taken: eight utterances wait, the ring buffer is nearly full, or the room is being reset. The same frame
  /// can be fed again after a pump. Refused silence may be forgotten: the utterance then stays open a little longer;
  /// refused audio that is not fed again is lost.
  kFull,
  kTooLong,       ///< nothing taken: more than kMaxPacketSize bytes
  kNoSuchMember,  ///< nothing taken: not a member, or leaving
};

/** A recognized text. */
struct RoomText {
  std::uint32_t member_id = 0;
  std::string client_id;
  std::uint64_t utterance = 0;     ///< which of the member's stored utterances (MemberLedger::stored), from 1
  std::string text;                ///< raw JSON string content of the reply: escape sequences stand as written
  std::uint64_t timestamp_us = 0;  ///< microseconds from the room's construction to the collection of the reply
};

/** What the room tells the application; either may be empty. An event that throws ends the pump with its exception;
 * the events behind it come with the next pump. */
struct RoomEvents {
  std::function<void(const RoomText&)> text;
  std::function<void(const MemberLedger&)> left;  ///< the member has been released; its last text came before
};

class Room {
 public:
  /** Attaches `session`; time zero of the texts' time stamps. kSessionInUse. */
  explicit Room(ZelRtcSpeechToTextSessionHn session, RoomEvents events = {});
  /** Closes at once: what has not been answered is lost. Waits for exchanges in flight. */
  ~Room();
  Room(const Room&) = delete;
  Room& operator=(const Room&) = delete;

  /** URL of the service, from the next request on. At most 1023 bytes together with the query that the plug-in appends.
   * kInvalidArgument, kClosed. */
  void set_endpoint(std::string_view url);
  /** Access token, 1 to 504 bytes, from the next request on. kInvalidArgument, kClosed. */
  void set_token(std::string_view token);

  /** Lends a recognizer to a new member. `client_id`, 1 to 511 bytes, is what the application's member operations and
   * the service know the member by. Language and enabled flag are the application's to set, now: language is ja-JP, the
   * flag is that of the recognizer's last member. Must not overlap the application's member operations on the session,
   * which read client ids. kInvalidArgument, kDuplicateMember, kNoFreeRecognizer, kClosed. */
  void add_member(std::uint32_t member_id, std::string_view client_id);

  /** One frame of a member: the Opus packet (mono, 40 ms, at most kMaxPacketSize bytes), or nothing when the member was
   * silent. Read only during the call. Seven silent frames in a row end an utterance, and so do 60 s of audio; near the
   * request body limit of 80 KB the room inserts the pause itself, at the next quiet frame, or at the limit. Frames of
   * one member must come one after the other. */
  FrameResult feed(std::uint32_t member_id, std::span<const std::uint8_t> packet) noexcept;

  /** Whether every frame would be taken now. When not, utterances wait and pumping helps. False for a stranger. */
  bool can_accept(std::uint32_t member_id) const;
  /** Utterances of the member, or of all members, that wait for an answer. 0 for a stranger. */
  std::size_t waiting(std::uint32_t member_id) const;
  std::size_t waiting() const;

  /** Drops everything that was said and not answered: it is lost. Members and settings stay. Waits for exchanges in
   * flight; frames fed meanwhile are answered kFull. kClosed. */
  void reset();

  /** Drives recognition: one update of the session, texts collected, leaving members moved on, events called. Meant to
   * be called every 40 ms; any rate works. Result: number of texts. Does nothing in a closed room. */
  std::size_t pump();

  /** The member speaks no more: its utterance is ended, and pump goes on until all its utterances are answered or
   * `drain_time` has passed; then the recognizer is taken back and `left` is called. Until then the member's ids stay
   * in use. kNoSuchMember when it is not a member; again for a leaving one: the earlier deadline holds. Any drain time
   * will do: none or less ends it at once, milliseconds::max() never. */
  void begin_leave(std::uint32_t member_id, std::chrono::milliseconds drain_time = kDrainTime);
  /** begin_leave, then pumps until the member is gone. */
  void leave(std::uint32_t member_id, std::chrono::milliseconds drain_time = kDrainTime);
  /** All members leave, pumped until they are gone; then the session is detached. Does nothing in a closed room. */
  void close(std::chrono::milliseconds drain_time = kDrainTime);

  /** Whether the member is in the room, leaving ones included. */
  bool has_member(std::uint32_t member_id) const;
  /** Members in the room, leaving ones included. */
  std::size_t member_count() const;
  /** The member's ledger so far. kNoSuchMember. */
  MemberLedger ledger(std::uint32_t member_id) const;
  /** The ledgers of all members in the room, by member id. */
  std::vector<MemberLedger> ledgers() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace zel::host
