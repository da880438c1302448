// What became of everything that one member of a room said, frame by frame and utterance by utterance.
//
// A room counts from outside: its own frames, what leaves the member's ring buffer and comes back, the failure reports,
// and the texts. Every utterance that has ended is in exactly one place, at any time:
//   ended == dropped + delivered + failed + waiting + lost
// The left side is counted from frames and ring buffer when an utterance ends; `waiting` is read off the ring buffer;
// `delivered` and `failed` are counted from texts and reports. So the equation is a check and no definition.
//
// Thread rule: plain values.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace zel::host {

/** The reports that say why an utterance got no text. The first kExchangeFailures of them tell of the exchange with the
 * service, the others of its text on the way to the host. */
inline constexpr std::array<std::string_view, 7> kFailureReports{
    "E2022110401",  // the service's reply reports no success
    "E2022110402",  // the exchange failed
    "E2022110407",  // the request could not be started
    "E2022110403",  // the reply holds no text
    "E2022110404",  // no text packet free
    "E2022110405",  // no text block free
    "E2022110406",  // text longer than the session's texts may be
};
inline constexpr std::size_t kExchangeFailures = 3;

struct MemberLedger {
  std::uint32_t member_id = 0;
  std::string client_id;

  std::uint64_t frames = 0;           ///< answered kTaken; those the room inserted not counted
  std::uint64_t audio_frames = 0;     ///< of these, with a packet
  std::uint64_t refused_frames = 0;   ///< answered kFull or kTooLong
  std::uint64_t disabled_frames = 0;  ///< answered kDisabled

  std::uint64_t ended = 0;          ///< utterances with audio that ended, by whatever
  std::uint64_t forced_pauses = 0;  ///< of these, ended by the room because of the request body limit
  std::uint64_t dropped = 0;        ///< ended and not kept for posting
  std::uint64_t too_short = 0;      ///< of these, less than 200 ms of audio; the rest: member disabled, no room

  std::uint64_t posted = 0;     ///< utterances whose turn came: those answered, and the one under way
  std::uint64_t delivered = 0;  ///< answered, and no failure was reported
  std::uint64_t empty = 0;      ///< of these, with an empty text, which makes no RoomText
  std::uint64_t failed = 0;     ///< given back after a report of kFailureReports in the recognizer's part of an update
  std::array<std::uint64_t, kFailureReports.size()> failures{};  ///< these by report, in the order of kFailureReports
  std::uint64_t waiting = 0;  ///< kept and not answered yet, at most kMaxWaiting: chunks of lane 1 that are out
  std::uint64_t lost = 0;     ///< still being spoken or waiting when the member was released or the room reset
  std::uint64_t unfinished =
      0;  ///< of these, still being spoken; with less than 200 ms of audio it is too_short instead

  /** Utterances that were kept for posting. */
  std::uint64_t stored() const noexcept { return ended - dropped - unfinished; }
  /** Utterances of 200 ms or more that got no answer and will get none. */
  std::uint64_t unheard() const noexcept { return failed + lost + (dropped - too_short); }
  /** Counts another stay of the same member, or another member, in. */
  MemberLedger& operator+=(const MemberLedger& other) noexcept;
  bool balanced() const noexcept { return ended == dropped + delivered + failed + waiting + lost; }
};

/** The counts by name, in the order in which they are shown. */
inline constexpr std::array<std::pair<const char*, std::uint64_t MemberLedger::*>, 15> kLedgerCounts{{
    {"frames", &MemberLedger::frames},
    {"audio_frames", &MemberLedger::audio_frames},
    {"refused_frames", &MemberLedger::refused_frames},
    {"disabled_frames", &MemberLedger::disabled_frames},
    {"ended", &MemberLedger::ended},
    {"forced_pauses", &MemberLedger::forced_pauses},
    {"dropped", &MemberLedger::dropped},
    {"too_short", &MemberLedger::too_short},
    {"posted", &MemberLedger::posted},
    {"delivered", &MemberLedger::delivered},
    {"empty", &MemberLedger::empty},
    {"failed", &MemberLedger::failed},
    {"waiting", &MemberLedger::waiting},
    {"lost", &MemberLedger::lost},
    {"unfinished", &MemberLedger::unfinished},
}};

inline MemberLedger& MemberLedger::operator+=(const MemberLedger& other) noexcept {
  for (const auto& [name, count] : kLedgerCounts)
    this->*count += other.*count;
  for (std::size_t i = 0; i < failures.size(); ++i)
    failures[i] += other.failures[i];
  return *this;
}

}  // namespace zel::host
