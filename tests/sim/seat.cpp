#include "seat.h"

#include <algorithm>
#include <span>
#include <utility>

#include "expected_reports.h"
#include "world.h"

namespace sim {

namespace {

constexpr std::size_t kMaxWaiting = 8;
constexpr std::uint32_t kMaxFrames = 1500, kMinFrames = 5, kPauseFrames = 7;  // 60 s, 200 ms, the pause
constexpr std::uint32_t kMaxBody = 81920, kMaxPacket = 256, kMaxUrl = 1023, kMaxHeaderValue = 511;
constexpr std::uint8_t kGone = 0xDD;
constexpr const char* kLanguages[] = {"ja-JP", "en-US", "zh-CN"};

}  // namespace

std::string PacketBytes(Packet packet) {
  std::string bytes(packet.size, '\0');
  for (std::uint32_t i = 0; i < packet.size; ++i)
    bytes[i] = static_cast<char>(i < 4 ? packet.serial >> 8 * i : packet.serial * 31 + i);
  return bytes;
}

void Setting::Begin(std::uint32_t wanted) {
  pending = wanted;
  changed_at = Now();
}

void Setting::End(bool stored) {
  if (stored) value = *pending;
  pending.reset();
  changed_at = Now();
}

void Seat::Expect(bool sound, const char* what) const {
  SIM_CHECK(sound, "recognizer %s: %s", name.c_str(), what);
}

void Seat::CheckBalance() {
  ledger.waiting = Out(ZEL_RING_LANE_DATA, false) - (partial_ ? 1 : 0) - (took_ ? 1 : 0);
  Expect(ledger.balanced(), "utterances do not add up, or chunks of the ring buffer are out for none");
}

// ---- The ring buffer: where its chunks go tells what has become of utterances

std::uint32_t Seat::RingSize(std::uint32_t lane) const {
  auto used = static_cast<std::uint32_t>(data_.size());
  if (lane == ZEL_RING_LANE_DATA) return used;
  for (const Chunk& chunk : chunks_)
    used += chunk.out;
  return ring_bytes_ - used;
}

std::size_t Seat::Out(std::uint32_t lane, bool by_update) const {
  return static_cast<std::size_t>(
      std::ranges::count_if(chunks_, [=](const Chunk& c) { return c.lane == lane && c.by_update == by_update; }));
}

ZelRingBufferChunk Seat::Acquire(std::uint32_t lane, std::uint32_t size) {
  UseRing();
  std::uint32_t given = std::min(size, RingSize(lane));
  if (OneIn(TheWorld().knobs.starve_one_in)) given = Below(given + 1);
  if (given < size) FallShort(lane);
  if (given == 0) return {nullptr, 0};
  Chunk chunk = {std::make_unique_for_overwrite<std::uint8_t[]>(given), given, given, lane, Me().updating};
  const ZelRingBufferChunk whole = {chunk.bytes.get(), given};
  chunks_.push_back(std::move(chunk));
  if (lane == ZEL_RING_LANE_FREE) return whole;
  std::copy_n(data_.begin(), given, whole.data);
  data_.erase(data_.begin(), data_.begin() + given);
  if (!Me().updating) TakeStream(given);
  return whole;
}

void Seat::TakeBack(std::uint32_t lane, const ZelRingBufferChunk& part, bool released) {
  if (part.size == 0) return;
  // Time for a ninth utterance to take a slot that looks free before its bytes are.
  if (Me().updating && waiting_.size() == kMaxWaiting) TheWorld().scheduler.Sleep(Below(kSecond));
  UseRing();
  const auto chunk = std::ranges::find_if(chunks_, [&](const Chunk& c) {
    return c.bytes.get() <= part.data && part.data + part.size <= c.bytes.get() + c.size && part.size <= c.out;
  });
  Expect(chunk != chunks_.end(), "bytes come back that are not out");
  const bool was_data = chunk->lane == ZEL_RING_LANE_DATA, by_update = chunk->by_update;
  Expect(!was_data || (lane == ZEL_RING_LANE_FREE && !released), "a stream is put back");
  Expect(!released || lane == ZEL_RING_LANE_FREE, "bytes are released to another lane");
  if (lane == ZEL_RING_LANE_DATA) data_.insert(data_.end(), part.data, part.data + part.size);
  const bool oldest = std::find_if(chunks_.begin(), chunk, [](const Chunk& c) { return c.lane == 1; }) == chunk;
  chunk->out -= part.size;
  if (chunk->out == 0) {
    std::fill_n(chunk->bytes.get(), chunk->size, kGone);
    chunks_.erase(chunk);
  }
  if (!was_data) return;
  if (by_update) return DropAudio();
  if (Me().in_frame) return GiveStreamBack();
  Expect(oldest, "an utterance is freed before an older one");
  Answer();
}

void Seat::ResetRing() {
  Note("resets the ring of", name);
  Expect(resetting || !settings_.attached, "the ring buffer was reset without need");
  for (const Utterance& utterance : waiting_)
    Expect(!settings_.attached || utterance.urls.empty() || utterance.fate != Fate::kOpen, "a reset did not wait");
  if (std::exchange(frames_, 0) > 0) ++ledger.ended, ++ledger.lost;
  ledger.lost += waiting_.size();
  ledger.waiting = 0;
  ++resets_;
  for (const Chunk& chunk : chunks_)
    std::fill_n(chunk.bytes.get(), chunk.size, kGone);
  chunks_.clear();
  data_.clear();
  waiting_.clear();
  texts_.clear();
  current_ = {};
  silent_ = 0;
}

// ---- Audio: frames in, utterances out

void Seat::Put(std::optional<Packet> audio) {
  Caller& me = Me();
  me.seat = this;
  const std::string bytes = audio ? PacketBytes(*audio) : "";
  const SttAudioFrame frame = {audio ? reinterpret_cast<const std::uint8_t*>(bytes.data()) : nullptr,
                               static_cast<std::uint32_t>(bytes.size())};
  const bool too_long = bytes.size() > kMaxPacket;
  is_audio_ = audio.has_value();
  offer_ = too_long ? std::nullopt : audio;
  // The slot that an update under way is freeing may still be taken.
  const bool freeing = settings_.updating && freed_in_ == settings_.updates;
  was_full_ = waiting_.size() + (freeing ? 1 : 0) >= kMaxWaiting;
  took_ = worked_ = accounted_ = false;
  reports_ = &me.reports;
  const Micros began = Now();

  me.in_frame = true;
  const bool taken = handle->interface_table->PutAudioFrame(handle->instance, &frame) == 1;
  me.in_frame = false;

  const bool settled = !enabled.pending && enabled.changed_at < began;
  Expect(!settled || taken == (enabled.value != 0), "a frame of an enabled member was refused, or the other way round");
  Expect(Out(ZEL_RING_LANE_FREE, false) == 0, "free bytes were not given back after a frame");
  if (too_long && taken) Expect(std::erase(*reports_, ReportText("E2022110200")) <= 1, "one frame, two reports");
  if (taken && !accounted_) AccountFrame();
  Expect(taken || !worked_, "a refused frame changed something");
  offer_.reset();
  ExpectReport();
}

void Seat::TakeStream(std::uint32_t bytes) {
  partial_ = !data_.empty();
  if (partial_) return FallShort(ZEL_RING_LANE_DATA);
  if (offer_) current_.packets.push_back(*std::exchange(offer_, {}));
  current_.bytes = bytes;
  waiting_.push_back(std::exchange(current_, {}));
  took_ = true;
  ninth_ = waiting_.size() > kMaxWaiting;
}

void Seat::GiveStreamBack() {
  partial_ = false;
  if (!std::exchange(took_, false)) return;
  current_ = std::move(waiting_.back());
  waiting_.pop_back();
}

void Seat::UseRing() {
  if (!Me().in_frame) return;
  Expect(!accounted_, "the audio path works on a stream that an update has dropped");
  Expect(Out(ZEL_RING_LANE_FREE, true) + Out(ZEL_RING_LANE_DATA, true) == 0,
         "the audio path and an update work on the same stream");
  worked_ = true;
}

void Seat::AccountFrame() {
  accounted_ = true;
  if (offer_) current_.packets.push_back(*std::exchange(offer_, {}));
  silent_ = is_audio_ ? 0 : silent_ + 1;
  if (is_audio_) ++frames_;
  const bool ends = frames_ >= (is_audio_ ? kMaxFrames : 1) && (is_audio_ || silent_ == kPauseFrames);
  if (!ends) return Expect(!took_, "an utterance ended too early");
  Note(took_ ? "stores an utterance of" : "drops an utterance of", name);
  ++ledger.ended;
  if (took_) {
    Expect(frames_ >= kMinFrames && !ninth_, "an utterance was kept that is too short, or the ninth");
  } else {
    ++ledger.dropped;
    if (frames_ < kMinFrames) {
      ++ledger.too_short;
    } else if (std::erase(*reports_, ReportText("W2023020741")) > 0) {
      Expect(was_full_, "a ninth utterance was dropped that was none");
    } else {
      Expect(current_.damaged || current_.packets.empty(), "an utterance was lost");
      std::erase(*reports_, ReportText("E2022110231"));  // nothing to flush
    }
    current_ = {};
  }
  frames_ = silent_ = 0;
  took_ = false;
}

void Seat::DropAudio() {
  // A frame whose work is done, though its call has not returned, is dropped with the rest.
  if (worked_ && !accounted_) AccountFrame();
  const bool disabled = enabled.value == 0 || enabled.pending || enabled.changed_at >= settings_.update_began;
  Expect(disabled, "the audio of an enabled member was dropped");
  if (std::exchange(frames_, 0) > 0) ++ledger.ended, ++ledger.dropped;
  current_ = {};
}

void Seat::FallShort(std::uint32_t lane) {
  current_.damaged = true;
  if (lane == ZEL_RING_LANE_FREE) shortage_ = true;
}

bool Seat::TakeShortage() {
  return std::exchange(shortage_, false);
}

// ---- Requests

void Seat::Started() {
  Utterance& utterance = Posted();
  Expect(utterance.urls.empty(), "an utterance is posted twice");
  utterance.authorization = settings_.authorization;
  for (const std::uint32_t code : {language.value, language.pending.value_or(language.value)})
    utterance.urls.push_back(settings_.endpoint + "?language=" + kLanguages[code] + "&speaker=" + client_id);
  Note("posts for", name);
  ++ledger.posted;
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
  } else if (id == "E2022121326" || id == "E2022121329" || id == "E2022110407") {
    const bool due = id == "E2022121326"   ? settings_.authorization.size() > kMaxHeaderValue
                     : id == "E2022121329" ? utterance.bytes > kMaxBody
                                           : url_size > kMaxUrl;
    Expect(due && utterance.urls.empty() && utterance.fate == Fate::kOpen, "a request was refused without need");
    utterance.fate = Fate::kFailed;
    if (id != "E2022110407") utterance.owed_report = ReportText("E2022110407");
  } else {
    const bool no_packet = id == "E2022110404" && texts_.size() + held == settings_.max_packets;
    const bool no_room = id == "E2022110406" && utterance.text.size() >= settings_.max_text;
    SIM_CHECK(no_packet || no_room, "unexpected in an update: %s", text.c_str());
    utterance.lost = true;
  }
}

void Seat::Answer() {
  Utterance& utterance = Posted();
  Expect(utterance.fate != Fate::kOpen, "an utterance was dropped before its answer");
  Expect(utterance.owed_report.empty(), "a failure was not reported");
  Expect(!utterance.lost || utterance.fate != Fate::kFailed, "a text that was never there could not be delivered");
  if (utterance.lost || utterance.fate == Fate::kFailed) {
    ++ledger.failed;
  } else {
    ++ledger.delivered;
    if (utterance.fate == Fate::kEmpty) ++ledger.empty;
    if (utterance.fate == Fate::kText && !utterance.delivered) texts_.push_back(utterance.text);
  }
  Note("has an answer for", name);
  waiting_.pop_front();
  freed_in_ = settings_.updates;
}

// ---- Texts

PacketRef* Seat::Pop() {
  Me().seat = this;
  const std::uint32_t resets = resets_;
  const bool had_text = !texts_.empty();
  PacketRef* packet = handle->interface_table->PopTextPacket(handle->instance);
  const bool crossed = resetting || resets != resets_;  // by a reset, which may have come first
  Expect(packet != nullptr || !had_text || crossed, "a text that was delivered is not there");
  if (packet == nullptr) return nullptr;
  ++held;
  if (crossed) return packet;
  const bool early = texts_.empty();  // popped before the update had freed its utterance
  if (early) Expect(!std::exchange(Posted().delivered, true), "a text was delivered twice");
  const std::string text = early ? Posted().text : texts_.front();
  if (!early) texts_.pop_front();
  const std::uint64_t* fields = packet->payload->field_values;
  const auto* found = reinterpret_cast<const char*>(static_cast<std::uintptr_t>(fields[0]));
  SIM_CHECK(found == text, "recognizer %s: text \"%s\" instead of \"%s\"", name.c_str(), found, text.c_str());
  Expect(fields[1] == text.size() && fields[2] == member_id, "a wrong text length, or a text of another member");
  Expect(fields[3] >= last_time_ && fields[3] <= Now() - settings_.attached_at + 1, "a wrong time stamp");
  last_time_ = fields[3];
  Note("pops", found);
  return packet;
}

void Seat::Left() {
  Note("takes back", name);
  handle = nullptr;
  language = {};
  resetting = false;
}

}  // namespace sim
