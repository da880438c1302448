#include "member.h"

#include <utility>

#include "bridge_services.h"

namespace zel::host {
namespace {

constexpr std::uint32_t kPauseFrames = 7;        // silent frames in a row that end an utterance
constexpr std::uint32_t kMinAudioFrames = 5;     // fewer, and the utterance is dropped
constexpr std::uint32_t kMaxAudioFrames = 1500;  // as many, and the utterance ends
// The most that one frame takes from lane 0: its page, the final page, the headers of the next stream.
constexpr std::uint32_t kHeadroom = 3 * 5120;
constexpr std::uint64_t kMaxBody = 81920;     // longest stream that can be posted
constexpr std::uint64_t kSoftLimit = 73'728;  // from here on a quiet frame is taken for a pause

}  // namespace

void Utterance::add(Packet packet) {
  ++audio_frames;
  payload += packet.size();
  lacing += packet.size() / 255 + 1;
}

// Two header pages, packets and their lengths, and a header for every page. A page but the last is cut when it has more
// than 4096 bytes or 255 lengths.
std::uint64_t Utterance::max_stream_size() const {
  return 91 + payload + lacing + 27 * (payload / 4096 + lacing / 255 + 2);
}

bool Utterance::is_quiet(Packet packet) const {
  return 2 * packet.size() * audio_frames < payload;
}

bool Member::has_headroom() const {
  return ring == nullptr || ring->statistics().free_bytes >= kHeadroom;
}

// What happened at the ring buffer since the last look.
Member::RingChange Member::look_at_ring() {
  if (ring == nullptr) return {};
  const RingStatistics now = ring->statistics();
  const RingChange change{now.taken - ring_seen.taken, now.returned - ring_seen.returned};
  ring_seen = now;
  ledger.waiting = now.waiting();
  return change;
}

// The utterance is over and did not become one that waits.
void Member::drop_utterance() {
  if (utterance.audio_frames == 0) return;
  ++ledger.ended;
  ++ledger.dropped;
  if (utterance.audio_frames < kMinAudioFrames) ++ledger.too_short;
  utterance = {};
}

// Hands one frame to the plug-in. False when it takes none because the member is disabled.
bool Member::put(Packet packet) {
  const SttAudioFrame frame{packet.empty() ? nullptr : packet.data(), static_cast<std::uint32_t>(packet.size())};
  const RingWatch rings;
  const WordWatch words([this](const std::uint32_t* word) {
    if (enabled_word == nullptr) enabled_word = word;
  });
  if (recognizer->interface_table->PutAudioFrame(recognizer->instance, &frame) == 0) return false;
  if (ring == nullptr && rings.seen() != nullptr) {
    ring = rings.seen();
    ring_seen = ring->statistics();
  }
  if (packet.empty()) {
    silent_frames = (silent_frames + 1) % kPauseFrames;
  } else {
    silent_frames = 0;
    utterance.add(packet);
  }
  const RingChange change = look_at_ring();
  if (change.taken == 0) return true;
  if (change.taken != change.returned) {
    ++ledger.ended;
  } else {
    drop_utterance();
  }
  utterance = {};
  return true;
}

bool Member::put_pause() {
  for (std::uint32_t i = 0; i < kPauseFrames && utterance.audio_frames > 0; ++i) {
    if (!put({})) return false;
  }
  return true;
}

// Whether the plug-in can take this frame without losing anything.
bool Member::can_take(Packet packet) const {
  Utterance next = utterance;
  bool ends = false;
  if (packet.empty()) {
    if (next.audio_frames == 0) return true;
    ends = silent_frames + 1 == kPauseFrames;
  } else {
    next.add(packet);
    ends = next.audio_frames == kMaxAudioFrames || next.max_stream_size() > kMaxBody;
  }
  if (ends && next.audio_frames >= kMinAudioFrames && !has_slot()) return false;
  return (packet.empty() && !ends) || has_headroom();
}

FrameResult Member::take_frame(Packet packet) {
  if (packet.size() > kMaxPacketSize || !can_take(packet)) {
    ++ledger.refused_frames;
    return packet.size() > kMaxPacketSize ? FrameResult::kTooLong : FrameResult::kFull;
  }
  Utterance next = utterance;
  if (!packet.empty()) next.add(packet);
  if (next.max_stream_size() > kMaxBody && put_pause()) ++ledger.forced_pauses;
  if (!put(packet)) {
    ++ledger.disabled_frames;
    return FrameResult::kDisabled;
  }
  ++ledger.frames;
  if (!packet.empty()) ++ledger.audio_frames;
  const bool wants_pause = utterance.max_stream_size() >= kSoftLimit && utterance.is_quiet(packet);
  if (wants_pause && has_slot() && has_headroom() && put_pause()) ++ledger.forced_pauses;
  return FrameResult::kTaken;
}

void Member::note_failure(std::size_t report) {
  (report < kExchangeFailures ? started_failure : text_failure) = report;
}

void Member::settle(std::size_t texts) {
  const RingChange change = look_at_ring();
  if (change.taken > 0) {  // an update takes from lane 1 only to drop a disabled member's audio
    drop_utterance();
    silent_frames = 0;
  }
  const bool answered = change.returned != change.taken;
  const auto failure = text_failure ? text_failure : exchange_failure;
  if (texts > 0 || (answered && !failure)) {
    ++ledger.delivered;
    if (texts == 0) ++ledger.empty;
  } else if (answered) {
    ++ledger.failed;
    ++ledger.failures[*failure];
  }
  // After a failed exchange the next utterance waits for the next update.
  const bool starts = ledger.waiting > 0 && !(answered && exchange_failure);
  if (answered) posting = false;
  if (starts && !std::exchange(posting, true)) ++ledger.posted;
  if (answered) exchange_failure.reset();
  if (started_failure) exchange_failure = started_failure;
  started_failure.reset();
  text_failure.reset();
}

void Member::lose_all() {
  if (utterance.audio_frames >= kMinAudioFrames) {
    ++ledger.ended;
    ++ledger.lost;
    ++ledger.unfinished;
  } else {
    drop_utterance();
  }
  ledger.lost += std::exchange(ledger.waiting, 0);
  if (ring != nullptr) ring_seen = ring->statistics();
  utterance = {};
  silent_frames = 0;
  posting = false;
  exchange_failure.reset();
}

}  // namespace zel::host
