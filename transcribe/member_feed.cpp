#include "member_feed.h"

#include <utility>

namespace zel::transcribe {
namespace {

constexpr std::size_t kCutFrames = 7;       // frames without audio that end an utterance
constexpr std::size_t kRoomReserve = 8192;  // below the body limit the room begins to cut by itself

}  // namespace

std::size_t longest_utterance(int bitrate) {
  std::size_t frames = kLongestUtterance;
  while (max_stream_size(frames, packet_size(bitrate)) > kMaxBody - kRoomReserve - host::kMaxPacketSize)
    --frames;
  return frames;
}

MemberFeed::MemberFeed(std::uint32_t id, const MemberOptions& options, std::unique_ptr<AudioSource> source, int bitrate)
    : id_(id),
      language_(options.language),
      source_(std::move(source)),
      cutter_(longest_utterance(bitrate), sink()),
      encoder_(bitrate) {}

CutterSink MemberFeed::sink() {
  return {.audio =
              [this](const Frame& frame, std::uint64_t index) {
                if (!std::exchange(in_utterance_, true)) encoder_.reset();
                Piece& piece = pending_.emplace_back();
                piece.index = index;
                piece.size = encoder_.encode(frame, piece.packet);
              },
          .cut =
              [this] {
                in_utterance_ = false;
                pending_.resize(pending_.size() + kCutFrames);
                pending_.back().last_of_cut = true;
              }};
}

MemberFeed::Step MemberFeed::step(host::Room& room, bool may_read) {
  const std::size_t before = pending_.size();
  if (!feed_pending(room)) return pending_.size() < before ? Step::kWorked : Step::kBlocked;
  if (finished_) return Step::kOver;
  if (!may_read && !stopped_) return Step::kIdle;
  if (!read_frame()) return Step::kIdle;
  feed_pending(room);
  return Step::kWorked;
}

// False when the room does not take it all.
bool MemberFeed::feed_pending(host::Room& room) {
  while (!pending_.empty()) {
    const Piece& piece = pending_.front();
    if (!room.can_accept(id_)) return false;
    if (room.feed(id_, {piece.packet.data(), piece.size}) != host::FrameResult::kTaken) return false;
    note_taken(room, piece);
    pending_.pop_front();
  }
  return true;
}

void MemberFeed::note_taken(const host::Room& room, const Piece& piece) {
  if (piece.size > 0) {
    const double begin = static_cast<double>(piece.index) * kFrameSeconds;
    if (!spoken_) spoken_ = Stretch{begin, begin};
    spoken_->end = begin + kFrameSeconds;
  } else if (piece.last_of_cut && spoken_) {
    stretches_.emplace(room.ledger(id_).stored(), *spoken_);  // there already when this one was too short
    spoken_.reset();
  }
}

// False when there is nothing to read yet.
bool MemberFeed::read_frame() {
  Frame frame;
  const ReadResult result = stopped_ ? ReadResult::kEnd : source_->read(frame);
  if (result == ReadResult::kNotYet) return false;
  if (result == ReadResult::kFrame) {
    ++frames_read_;
    cutter_.push(frame, detector_.look_at(frame));
  } else {
    cutter_.finish();
    finished_ = true;
  }
  return true;
}

std::optional<Stretch> MemberFeed::take_stretch(std::uint64_t utterance) {
  const auto found = stretches_.lower_bound(utterance);
  const bool known = found != stretches_.end() && found->first == utterance;
  const auto stretch = known ? std::optional(found->second) : std::nullopt;
  stretches_.erase(stretches_.begin(), found);
  return stretch;
}

}  // namespace zel::transcribe
