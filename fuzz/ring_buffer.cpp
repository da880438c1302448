// The host's ring buffer against a model of it: numbered bytes, and lists of the chunks that are out.
//
// 1. A lane that holds n bytes gives n; every byte is in lane 0, in lane 1 or in a chunk that is out.
// 2. Lane 1 gives the bytes in the order in which they were committed; chunks keep their bytes as long as they are out.
// 3. Used bytes come back to lane 0 as the header promises, in whatever order and pieces they are given back.
// 4. A chunk that is not out changes nothing.
#include "ring_buffer.h"

#include <deque>
#include <vector>

#include "fuzz.h"

namespace {

using zel::host::RingBuffer;

struct Piece {
  ZelRingBufferChunk chunk;
  std::uint64_t from;  // number of its first byte
  bool back = false;   // given back, but waiting for an older one
};

std::uint8_t ByteAt(std::uint64_t number) {
  return static_cast<std::uint8_t>((number * 0x9E3779B97F4A7C15ULL) >> 56);
}

class Machine {
 public:
  explicit Machine(fuzz::Input& input)
      : input_(input), config_{0, 1 + input.below(300), 1, 1 + input.below(12), ""}, work_(WorkSize()) {
    ring_ = RingBuffer::create(config_, work_.data(), static_cast<std::uint32_t>(work_.size()));
    FUZZ_CHECK(ring_ != nullptr);
  }

  void Step() {
    static constexpr void (Machine::*kSteps[])() = {&Machine::Write,   &Machine::Finish,   &Machine::Withdraw,
                                                    &Machine::Take,    &Machine::GiveBack, &Machine::GiveBack,
                                                    &Machine::PutBack, &Machine::Disturb};
    (this->*kSteps[input_.below(std::size(kSteps))])();
    std::uint64_t out = 0;
    for (const Piece& piece : used_)
      out += piece.chunk.size;
    FUZZ_CHECK(ring_->data_size(1) == back_ - front_);
    FUZZ_CHECK(ring_->data_size(0) == config_.buffer_size - (end_ - front_) - out);
  }

 private:
  std::size_t WorkSize() const { return static_cast<std::size_t>(RingBuffer::calculate_work_size(config_)); }

  static void CheckBytes(const Piece& piece) {
    for (std::uint32_t i = 0; i < piece.chunk.size; ++i)
      FUZZ_CHECK(piece.chunk.data[i] == ByteAt(piece.from + i));
  }

  ZelRingBufferChunk Acquire(std::uint32_t lane) {
    const std::uint32_t wanted = input_.below(320);
    const std::uint32_t there = ring_->data_size(lane);
    const ZelRingBufferChunk chunk = ring_->acquire(lane, wanted);
    FUZZ_CHECK(chunk.size == std::min(wanted, there));
    return chunk;
  }

  // Cuts a piece in two where the input says; the second part may be empty.
  std::pair<Piece, Piece> Cut(const Piece& piece) {
    ZelRingBufferChunk head, tail;
    RingBuffer::split(piece.chunk, 1 + input_.below(320), head, tail);
    return {{head, piece.from}, {tail, piece.from + head.size}};
  }

  void Write() {
    const Piece piece{Acquire(0), end_};
    if (piece.chunk.size == 0) return;
    for (std::uint32_t i = 0; i < piece.chunk.size; ++i)
      piece.chunk.data[i] = ByteAt(end_ + i);
    end_ += piece.chunk.size;
    writing_.push_back(piece);
  }

  // The oldest chunk, or its beginning, goes to lane 1.
  void Finish() {
    if (writing_.empty()) return;
    CheckBytes(writing_.front());
    const auto [head, tail] = Cut(writing_.front());
    ring_->commit(1, head.chunk);
    back_ += head.chunk.size;
    writing_.pop_front();
    if (tail.chunk.size > 0) writing_.push_front(tail);
  }

  // The newest chunk, or its end, goes back to lane 0 unwritten.
  void Withdraw() {
    if (writing_.empty()) return;
    const auto [head, tail] = Cut(writing_.back());
    const Piece& released = tail.chunk.size > 0 ? tail : head;
    ring_->release(0, released.chunk);
    end_ -= released.chunk.size;
    writing_.pop_back();
    if (tail.chunk.size > 0) writing_.push_back(head);
  }

  void Take() {
    if (used_.size() == config_.max_chunks) return;
    const Piece piece{Acquire(1), front_};
    CheckBytes(piece);
    front_ += piece.chunk.size;
    if (piece.chunk.size > 0) used_.push_back(piece);
  }

  void GiveBack() {
    std::size_t index = input_.below(static_cast<std::uint32_t>(used_.size()) + 1);
    if (index == used_.size() || used_[index].back) return;
    CheckBytes(used_[index]);
    const auto [head, tail] = Cut(used_[index]);
    if (tail.chunk.size > 0 && used_.size() < config_.max_chunks) {
      used_[index] = head;
      used_.insert(used_.begin() + static_cast<std::ptrdiff_t>(index) + 1, tail);
      index += input_.below(2);
    }
    const ZelRingBufferChunk chunk = used_[index].chunk;
    ring_->commit(0, chunk);
    ring_->commit(0, chunk);  // a second time: not out any more
    used_[index].back = true;

    const auto is_back = [](const Piece& piece) { return piece.back; };
    if (front_ == end_ && std::all_of(used_.begin() + static_cast<std::ptrdiff_t>(index), used_.end(), is_back)) {
      while (!used_.empty() && used_.back().back)
        used_.pop_back();
    }
    if (std::all_of(used_.begin(), used_.end(), is_back)) used_.clear();
    while (!used_.empty() && used_.front().back)
      used_.pop_front();
  }

  // The newest chunk goes back to lane 1, unless its end has been given back; no other can.
  void PutBack() {
    if (used_.empty()) return;
    if (used_.size() > 1) ring_->release(1, used_.front().chunk);
    const Piece newest = used_.back();
    if (newest.back || newest.from + newest.chunk.size != front_) return;
    CheckBytes(newest);
    ring_->release(1, newest.chunk);
    front_ = newest.from;
    used_.pop_back();
  }

  // A chunk that was never given, or everything at once.
  void Disturb() {
    std::uint8_t stranger[8] = {};
    const ZelRingBufferChunk strangers[] = {
        {nullptr, 8}, {stranger, 8}, {work_.data(), 1}, {work_.data() + work_.size() - 1, 0x7FFFFFFF}};
    const std::uint32_t which = input_.below(5), lane = input_.below(3);
    if (which < 4) {
      input_.below(2) == 0 ? ring_->commit(lane, strangers[which]) : ring_->release(lane, strangers[which]);
    } else {
      ring_->reset();
      used_.clear();
      writing_.clear();
      front_ = back_ = end_;
    }
  }

  fuzz::Input& input_;
  const ZelRingBufferConfig config_;
  std::vector<std::uint8_t> work_;
  RingBuffer* ring_ = nullptr;
  std::deque<Piece> used_;                        // out of lane 1, oldest first
  std::uint64_t front_ = 0, back_ = 0, end_ = 0;  // numbers: lane 1 from front_, writing_ from back_ to end_
  std::deque<Piece> writing_;                     // out of lane 0, oldest first
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  Machine machine(input);
  while (!input.empty())
    machine.Step();
  return 0;
}
