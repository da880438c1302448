// Row pipeline: what a member's audio costs from the frame to the finished stream, in a room of 64 members who all
// speak.
// One iteration is one round, eight utterances of each member, so that all iterations hold the same work. Posting is
// left out for everybody; what would follow it, the return of the streams' memory, comes at the end of a round.
//
// Limit: libogg and the reference host's ring buffer (pipeline_libogg.cpp). Peers: the same streams by libavformat and
// by GStreamer, without a ring buffer. Everybody works on the calling thread, whose CPU time counts.
#include "pipeline.h"

#include <benchmark/benchmark.h>
#include <ogg/ogg.h>

#include <cstring>
#include <stdexcept>

#include "recognizer.h"
#include "recognizer_record.h"
#include "room_session.h"

namespace rooms {

std::vector<std::uint8_t> IdentificationPacket() {
  return {'O', 'p', 'u', 's', 'H', 'e', 'a', 'd', 1, 1, 0, 0, 0x80, 0x3E, 0, 0, 0, 0, 0};
}

std::vector<std::uint8_t> CommentPacket() {
  return {'O', 'p', 'u', 's', 'T', 'a', 'g', 's', 0, 0, 0, 0, 0, 0, 0, 0};
}

}  // namespace rooms

namespace {

using rooms::PipelineMember;

constexpr std::uint32_t kMembers = 64;

// A recognizer of the plug-in.
class PluginMember final : public PipelineMember {
 public:
  explicit PluginMember(SttRecognizerHn recognizer) : recognizer_(recognizer) {}
  void BeginRound() override { zelSttRecognizer_Reset(recognizer_); }
  void PutFrame(const SttAudioFrame& frame) override {
    recognizer_->interface_table->PutAudioFrame(recognizer_->instance, &frame);
  }
  std::vector<std::string> Streams() override {
    std::vector<std::string> streams;
    const SttRecognizer& record = *recognizer_->instance;
    for (std::int32_t i = record.send_index; streams.size() < rooms::kUtterances; i = (i + 1) % kSttUtteranceSlots) {
      const ZelRingBufferChunk& slot = record.utterance_slots[i];
      if (slot.size == 0) break;
      streams.emplace_back(reinterpret_cast<const char*>(slot.data), slot.size);
    }
    return streams;
  }

 private:
  SttRecognizerHn recognizer_;
};

std::unique_ptr<PipelineMember> MakePluginMember() {
  static rooms::RoomSession session(kMembers + 1);
  static std::size_t next = 0;
  if (next == 0) session.SetActive(kMembers + 1);
  return std::make_unique<PluginMember>(session.active()[next++]);
}

// The packets of a stream, behind its two header packets.
std::vector<std::string> PacketsOf(const std::string& stream) {
  ogg_sync_state sync;
  ogg_sync_init(&sync);
  std::memcpy(ogg_sync_buffer(&sync, static_cast<long>(stream.size())), stream.data(), stream.size());
  ogg_sync_wrote(&sync, static_cast<long>(stream.size()));
  ogg_stream_state state;
  ogg_stream_init(&state, 0);
  ogg_page page;
  bool first = true;
  std::vector<std::string> packets;
  while (ogg_sync_pageout(&sync, &page) == 1) {
    if (first) ogg_stream_reset_serialno(&state, ogg_page_serialno(&page));
    first = false;
    ogg_stream_pagein(&state, &page);
    ogg_packet packet;
    while (ogg_stream_packetout(&state, &packet) == 1)
      packets.emplace_back(reinterpret_cast<const char*>(packet.packet), static_cast<std::size_t>(packet.bytes));
  }
  ogg_stream_clear(&state);
  ogg_sync_clear(&sync);
  if (packets.size() < 2) {
    throw std::runtime_error("pipeline: " + std::to_string(packets.size()) + " packets in a stream of " +
                             std::to_string(stream.size()) + " bytes");
  }
  packets.erase(packets.begin(), packets.begin() + 2);
  return packets;
}

std::vector<std::string> RoundOf(PipelineMember& member) {
  member.BeginRound();
  for (const SttAudioFrame& frame : rooms::Script())
    member.PutFrame(frame);
  return member.Streams();
}

// The plug-in's streams are libogg's, byte for byte; the peers' hold the same packets.
void CheckOnce(PipelineMember& member, bool same_bytes) {
  static const std::vector<std::string> expected = RoundOf(*MakePluginMember());
  const std::vector<std::string> streams = RoundOf(member);
  if (expected.size() != rooms::kUtterances || streams.size() != expected.size()) {
    throw std::runtime_error("pipeline: utterances are missing");
  }
  for (std::size_t i = 0; i < streams.size(); ++i) {
    const bool same = same_bytes ? streams[i] == expected[i] : PacketsOf(streams[i]) == PacketsOf(expected[i]);
    if (!same) throw std::runtime_error("pipeline: the contestants' streams differ");
  }
}

struct Room {
  struct Seat {
    std::unique_ptr<PipelineMember> member;
    rooms::Place place;
  };
  Room(std::unique_ptr<PipelineMember> (*make)(), bool same_bytes) {
    for (std::size_t i = 0; i < kMembers; ++i) {
      seats.push_back({make(), rooms::Place(i, kMembers)});
      if (i == 0) CheckOnce(*seats[0].member, same_bytes);
      seats[i].member->BeginRound();
    }
    Round();  // what is touched for the first time is not measured
  }
  // Tick after tick, a frame of each member.
  void Round() {
    for (std::size_t tick = 0; tick < rooms::Script().size(); ++tick) {
      for (Seat& seat : seats) {
        if (seat.place.at_start()) seat.member->BeginRound();
        seat.member->PutFrame(seat.place.Next());
      }
    }
  }
  std::vector<Seat> seats;
};

template <std::unique_ptr<PipelineMember> (*kMake)(), bool kSameBytes>
void Pipeline(benchmark::State& state) {
  static std::unique_ptr<Room> room;
  try {
    if (!room) room = std::make_unique<Room>(kMake, kSameBytes);
  } catch (const std::runtime_error& error) {
    return state.SkipWithError(error.what());
  }
  for ([[maybe_unused]] auto step : state)
    room->Round();
  const double seconds_of_audio = kMembers * static_cast<double>(rooms::Script().size()) / rooms::kFramesPerSecond;
  state.counters["cpu_per_second_of_audio"] =
      benchmark::Counter(seconds_of_audio, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

BENCHMARK(Pipeline<MakePluginMember, true>)->Name("pipeline/plugin");
BENCHMARK(Pipeline<rooms::MakeLiboggMember, true>)->Name("pipeline/limit");
BENCHMARK(Pipeline<rooms::MakeLibavformatMember, false>)->Name("pipeline/libavformat");
BENCHMARK(Pipeline<rooms::MakeGstreamerMember, false>)->Name("pipeline/gstreamer");

}  // namespace
