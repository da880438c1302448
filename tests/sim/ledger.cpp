#include "ledger.h"

#include <algorithm>
#include <span>
#include <utility>

#include "reports.h"
#include "world.h"

namespace sim {

namespace {

constexpr std::uint32_t kMaxFrames = 1500, kMinFrames = 5, kPauseFrames = 7;  // 60 s, 200 ms, the pause
constexpr const char* kLanguages[] = {"ja-JP", "en-US", "zh-CN"};

}  // namespace

std::string PacketBytes(Packet packet) {
  std::string bytes(packet.size, '\0');
  for (std::uint32_t i = 0; i < packet.size; ++i)
    bytes[i] = static_cast<char>(i < 4 ? packet.serial >> 8 * i : packet.serial * 31 + i);
  return bytes;
}

Counts& UtteranceTotals() {
  static Counts totals{};
  return totals;
}

void Setting::Begin(std::uint32_t wanted) {
  pending = wanted;
  ++changes;
  changed_at = Now();
}

void Setting::End(bool stored) {
  if (stored) value = *pending;
  pending.reset();
  ++changes;
  changed_at = Now();
}

void Seat::Expect(bool sound, const char* what) const {
  SIM_CHECK(sound, "recognizer %s: %s", name_.c_str(), what);
}

// ---- Audio: frames in, utterances out

void Seat::BeginFrame(std::optional<Packet> audio, bool too_long) {
  is_audio_ = audio.has_value();
  too_long_ = too_long;
  offer_ = too_long ? std::nullopt : audio;
  // The slot that an update under way is freeing may still be taken.
  const bool freeing = settings_.updating && freed_in_ == settings_.updates;
  was_full_ = waiting_.size() + (freeing ? 1 : 0) == kMaxWaiting;
  took_ = worked_ = accounted_ = false;
  reports_ = &Me().reports;
  enabled_changes_ = enabled.changes;
}

void Seat::TakeOffer() {
  if (offer_) current_.packets.push_back(*offer_);
  offer_.reset();
}

void Seat::TookStream(std::uint32_t bytes, bool whole) {
  partial_ = !whole;
  if (partial_) return RingFellShort(ZEL_RING_LANE_DATA);
  TakeOffer();
  current_.bytes = bytes;
  waiting_.push_back(std::exchange(current_, {}));
  took_ = true;
  ninth_ = waiting_.size() > kMaxWaiting;
}

void Seat::GaveStreamBack() {
  partial_ = false;
  if (!took_) return;
  current_ = std::move(waiting_.back());
  waiting_.pop_back();
  took_ = false;
}

void Seat::Worked() {
  Expect(!accounted_, "the audio path works on a stream that an update has dropped");
  Expect(ring->Out(ZEL_RING_LANE_FREE, true) + ring->Out(ZEL_RING_LANE_DATA, true) == 0,
         "the audio path and an update work on the same stream");
  worked_ = true;
}

void Seat::EndFrame(bool taken) {
  const bool settled = enabled_changes_ == enabled.changes && !enabled.pending;
  Expect(!settled || taken == (enabled.value != 0), "a frame of an enabled member was refused, or the other way round");
  Expect(ring->Out(ZEL_RING_LANE_FREE) == 0, "free bytes were not given back after a frame");
  if (too_long_ && taken) Expect(std::erase(*reports_, ReportText("E2022110200")) <= 1, "one frame, two reports");
  if (taken && !accounted_) AccountFrame();
  Expect(taken || !worked_, "a refused frame changed something");
  offer_.reset();
  ExpectReports();
}

void Seat::AccountFrame() {
  accounted_ = true;
  TakeOffer();
  silent_ = is_audio_ ? 0 : silent_ + 1;
  if (is_audio_) ++frames_;
  const bool ends = frames_ >= (is_audio_ ? kMaxFrames : 1) && (is_audio_ || silent_ == kPauseFrames);
  if (!ends) return Expect(!took_, "an utterance ended too early");
  Note(took_ ? "stores an utterance of" : "drops an utterance of", name_);
  ++counts[kEnded];
  const bool sound = !current_.damaged && !current_.packets.empty();
  if (took_) {
    Expect(frames_ >= kMinFrames && !ninth_, "an utterance was kept that is too short, or the ninth");
    ++counts[kStored];
  } else if (frames_ < kMinFrames) {
    ++counts[kTooShort];
  } else if (std::erase(*reports_, ReportText("W2023020741")) > 0) {
    Expect(was_full_, "a ninth utterance was dropped that was none");
    ++counts[kNinth];
  } else {
    Expect(!sound, "an utterance was lost");
    std::erase(*reports_, ReportText("E2022110231"));  // nothing to flush
    ++counts[kIncomplete];
  }
  if (!took_) current_ = {};
  frames_ = silent_ = 0;
  took_ = false;
}

void Seat::DroppedAudio() {
  // A frame whose work is done, though its call has not returned, is dropped with the rest.
  if (worked_ && !accounted_) AccountFrame();
  const bool disabled = enabled.value == 0 || enabled.pending || enabled.changed_at >= settings_.update_began;
  if (frames_ > 0) Note("drops audio of", name_);
  Expect(disabled, "the audio of an enabled member was dropped");
  if (frames_ > 0) ++counts[kEnded], ++counts[kDropped];
  current_ = {};
  frames_ = 0;
}

void Seat::RingFellShort(std::uint32_t lane) {
  current_.damaged = true;
  if (lane == ZEL_RING_LANE_FREE) shortage_ = true;
}

bool Seat::TakeShortage() {
  return std::exchange(shortage_, false);
}

// ---- Requests

void Seat::Started() {
  Utterance& utterance = Posted();
  Expect(!utterance.started, "an utterance is posted twice");
  utterance.started = true;
  utterance.authorization = settings_.authorization;
  for (const std::uint32_t code : {language.value, language.pending.value_or(language.value)})
    utterance.urls.push_back(settings_.endpoint + "?language=" + kLanguages[code] + "&speaker=" + client_id);
  Note("posts for", name_);
  ++counts[kPosted];
}

Utterance& Seat::Posted() {
  Expect(!waiting_.empty(), "something is posted although no utterance waits");
  return waiting_.front();
}

void Seat::TakeUpdateReport(const std::string& text) {
  const std::string id = text.substr(0, 11);
  if (id == "E2022103100") return Expect(TakeShortage(), "a page found no room in a ring buffer that had it");
  Utterance& utterance = Posted();
  const std::size_t url_size = settings_.endpoint.size() + sizeof("?language=ja-JP&speaker=") - 1 + client_id.size();
  if (text == utterance.owed_report) {
    utterance.owed_report.clear();
  } else if (id == "E2022121326" || id == "E2022121329") {
    const bool due =
        id == "E2022121326" ? settings_.authorization.size() > kMaxHeaderValue : utterance.bytes > kMaxBody;
    Expect(due && !utterance.started && utterance.fate == Fate::kOpen, "a request within the limits was refused");
    utterance.fate = Fate::kFailed;
    utterance.owed_report = ReportText("E2022110407");
  } else if (id == "E2022110407") {
    Expect(url_size > kMaxUrl && !utterance.started, "a request was refused without need");
    utterance.fate = Fate::kFailed;
  } else if (id == "E2022110404") {
    Expect(texts_.size() + held == settings_.max_packets, "no packet, though not all are out");
    utterance.lost = true;
  } else if (id == "E2022110406") {
    Expect(utterance.text.size() >= settings_.max_text, "no room for a text that fits");
    utterance.lost = true;
  } else {
    SIM_CHECK(false, "unexpected in an update: %s", text.c_str());
  }
}

void Seat::Answered() {
  Utterance& utterance = Posted();
  Expect(utterance.fate != Fate::kOpen, "an utterance was dropped before its answer");
  Expect(utterance.owed_report.empty(), "a failure was not reported");
  Expect(!utterance.lost || utterance.fate != Fate::kFailed, "a text that was never there could not be delivered");
  if (utterance.fate == Fate::kText && !utterance.lost) {
    ++counts[kDelivered];
    if (!utterance.delivered) texts_.push_back(utterance.text);
  } else {
    ++counts[utterance.fate == Fate::kEmpty && !utterance.lost ? kEmpty : kFailed];
  }
  Note("has an answer for", name_);
  waiting_.pop_front();
  freed_in_ = settings_.updates;
}

void Seat::RingWasReset() {
  Expect(resetting || destroying, "the ring buffer was reset without need");
  for (const Utterance& utterance : waiting_) {
    Expect(destroying || !utterance.started || utterance.fate != Fate::kOpen, "a reset did not wait for the exchange");
    ++counts[kReset];
  }
  if (frames_ > 0) ++counts[kEnded], ++counts[kDropped];
  ++resets_;
  waiting_.clear();
  texts_.clear();
  current_ = {};
  frames_ = silent_ = 0;
}

// ---- Texts

void Seat::BeginPop() {
  resets_before_pop_ = resets_;
  had_text_ = !texts_.empty();
}

void Seat::EndPop(const PacketRef* packet) {
  const bool crossed = resetting || resets_before_pop_ != resets_;  // by a reset, which may have come first
  if (packet == nullptr) return Expect(!had_text_ || crossed, "a text that was delivered is not there");
  ++held;
  ++counts[kPopped];
  if (crossed) return;
  Expect(!texts_.empty() || !waiting_.empty(), "a text that nobody spoke");
  const bool early = texts_.empty();  // popped before the update had freed its utterance
  if (early) Expect(!std::exchange(Posted().delivered, true), "a text was delivered twice");
  const std::string text = early ? Posted().text : texts_.front();
  if (!early) texts_.pop_front();
  const SttPacket& fields = *packet->payload;
  constexpr std::uint32_t kFlags[] = {SttPacketField_Text, SttPacketField_TextLength, SttPacketField_MemberId,
                                      SttPacketField_Timestamp};
  Expect(fields.field_mask == 1572 && fields.slot_marks == 0 && packet->ref_count == 1 &&
             std::ranges::equal(kFlags, std::span(fields.field_flags, 4)),
         "a packet of another shape");
  const auto* found = reinterpret_cast<const char*>(static_cast<std::uintptr_t>(fields.field_values[0]));
  SIM_CHECK(found == text, "recognizer %s: text \"%s\" instead of \"%s\"", name_.c_str(), found, text.c_str());
  Expect(fields.field_values[1] == text.size(), "a wrong text length");
  Expect(fields.field_values[2] == member_id, "a text of another member");
  const std::uint64_t time = fields.field_values[3];
  Expect(time >= last_time_ && time <= Now() - settings_.attached_at + 1, "a wrong time stamp");
  last_time_ = time;
  Note("pops", found);
}

void Seat::Left() {
  Note("takes back", name_);
  handle = nullptr;
  language = {};
  resetting = false;
}

void Seat::CheckBalance() const {
  Expect(ring->Out(ZEL_RING_LANE_DATA) == waiting_.size() + (partial_ ? 1 : 0),
         "chunks of the ring buffer are out for no utterance");
  Expect(
      counts[kEnded] == counts[kStored] + counts[kTooShort] + counts[kNinth] + counts[kIncomplete] + counts[kDropped],
      "utterances ended do not add up");
  Expect(counts[kStored] + (took_ ? 1 : 0) ==
             counts[kDelivered] + counts[kEmpty] + counts[kFailed] + counts[kReset] + waiting_.size(),
         "utterances stored do not add up");
}

}  // namespace sim
