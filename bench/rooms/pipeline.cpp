// Row pipeline: what a member's audio costs from the frame to the finished stream, in a room of 64 members who all
// speak. One iteration is one round, eight utterances of each member, so that all iterations hold the same work.
// Posting is left out for everybody; what would follow it, the return of the streams' memory, comes at the end of a
// round.
//
// Limit: libogg and the reference host's ring buffer (pipeline_libogg.cpp). Peers: the same streams by libavformat and
// by GStreamer, without a ring buffer. Everybody works on the calling thread, whose CPU time counts.
#include "pipeline.h"

#include <benchmark/benchmark.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "ogg_packets.h"
#include "program.h"
#include "recognizer.h"
#include "recognizer_record.h"
#include "room_session.h"
#include "rooms.h"

namespace bench {
namespace {

constexpr std::uint32_t kMembers = 64;

// A recognizer of the plug-in.
class PluginMember final : public PipelineMember {
 public:
  explicit PluginMember(SttRecognizerHn recognizer) : recognizer_(recognizer) {}
  void begin_round() override { zelSttRecognizer_Reset(recognizer_); }
  void put_frame(const SttAudioFrame& frame) override {
    recognizer_->interface_table->PutAudioFrame(recognizer_->instance, &frame);
  }
  std::vector<Stream> streams() override {
    std::vector<Stream> streams;
    const SttRecognizer& record = *recognizer_->instance;
    for (std::int32_t i = record.send_index; streams.size() < kUtterances; i = (i + 1) % kSttUtteranceSlots) {
      const ZelRingBufferChunk& slot = record.utterance_slots[i];
      if (slot.size == 0) break;
      streams.emplace_back(slot.data, slot.data + slot.size);
    }
    return streams;
  }

 private:
  SttRecognizerHn recognizer_;
};

// All members on one contestant.
class Room {
 public:
  explicit Room(const std::function<std::unique_ptr<PipelineMember>(std::size_t)>& make) {
    for (std::size_t i = 0; i < kMembers; ++i)
      seats_.push_back({make(i), Place(i, kMembers)});
  }
  // The streams of a member who says everything.
  std::vector<Stream> try_out() {
    PipelineMember& member = *seats_[0].member;
    member.begin_round();
    for (const SttAudioFrame& frame : script())
      member.put_frame(frame);
    return member.streams();
  }
  void begin() {
    for (Seat& seat : seats_)
      seat.member->begin_round();
    run();  // what is touched for the first time is not measured
  }
  // One round: tick after tick, a frame of each member.
  void run() {
    for (std::size_t tick = 0; tick < script().size(); ++tick) {
      for (Seat& seat : seats_) {
        if (seat.place.at_start()) seat.member->begin_round();
        seat.member->put_frame(seat.place.next());
      }
    }
  }

 private:
  struct Seat {
    std::unique_ptr<PipelineMember> member;
    Place place;
  };
  std::vector<Seat> seats_;
};

// The contestants' rooms. The plug-in's streams are libogg's, byte for byte; the peers' hold the same packets.
class Rooms {
 public:
  Rooms() {
    const std::vector<Stream> expected = plugin.try_out();
    require(expected.size() == kUtterances && limit.try_out() == expected);
    for (Room* peer : {&libavformat, &gstreamer}) {
      const std::vector<Stream> streams = peer->try_out();
      require(streams.size() == kUtterances);
      for (std::size_t i = 0; i < kUtterances; ++i)
        require(!ogg_packets(expected[i]).empty() && ogg_packets(streams[i]) == ogg_packets(expected[i]));
    }
    for (Room* room : {&plugin, &limit, &libavformat, &gstreamer})
      room->begin();
  }

 private:
  static void require(bool same) {
    if (!same) throw std::runtime_error("pipeline: the contestants' streams differ");
  }

  RoomSession session_{kMembers};

 public:
  Room plugin{[this](std::size_t i) {
    if (i == 0) session_.lend(kMembers);
    return std::make_unique<PluginMember>(session_.lent()[i]);
  }};
  Room limit{[](std::size_t) { return make_libogg_member(); }};
  Room libavformat{[](std::size_t) { return make_libavformat_member(); }};
  Room gstreamer{[](std::size_t) { return make_gstreamer_member(); }};
};

void measure(benchmark::State& state, Room& room) {
  for ([[maybe_unused]] auto step : state)
    room.run();
  const double seconds_of_audio = kMembers * static_cast<double>(script().size()) / kFramesPerSecond;
  state.counters["cpu_per_second_of_audio"] =
      benchmark::Counter(seconds_of_audio, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

}  // namespace

void register_pipeline() {
  const Shared<Rooms> rooms;
  const auto add = [&rooms](const char* name, Room Rooms::*room) {
    benchmark::RegisterBenchmark(name, [=](auto& state) { measure(state, rooms().*room); });
  };
  add("pipeline/plugin", &Rooms::plugin);
  add("pipeline/limit", &Rooms::limit);
  add("pipeline/libavformat", &Rooms::libavformat);
  add("pipeline/gstreamer", &Rooms::gstreamer);
}

}  // namespace bench
