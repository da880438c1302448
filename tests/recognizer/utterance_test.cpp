#include "utterance.h"

#include <algorithm>

#include "recognizer_rig.h"

namespace {

const std::string kNoRoom = "0 E2022103100:Failed to write buffer because it is not enough buffer length of out data.";
const std::string kTooLong =
    "0 E2022110200:Failed to write buffer. Please increase ZelContainerFormatterOggConfig::max_buffer_size_per_write.";

// Posts what is in the slots, oldest first.
std::vector<std::string> Bodies(RecognizerRig* rig) {
  const int waiting = rig->FilledSlots();
  for (int i = 0; i < waiting; ++i)
    rig->executor.Reply(Recognized(""));
  rig->Update(3 * waiting);
  std::vector<std::string> bodies;
  for (const Exchange& exchange : rig->executor.exchanges())
    bodies.push_back(exchange.body);
  return bodies;
}

// Every body is a whole stream, however many packets it has.
void ExpectWholeStreams(const std::vector<Exchange>& exchanges) {
  for (const Exchange& exchange : exchanges)
    ExpectPackets(exchange.body, (exchange.body.size() - kHeaderPages - 27) / 15, "an Opus packet");
}

// With the ring buffer as it should be, the next utterance is the only one posted.
void ExpectNextIsPosted(RecognizerRig* rig) {
  rig->host.acquire_limit = nullptr;
  rig->Say(5, "kept");
  const std::vector<std::string> bodies = Bodies(rig);
  ASSERT_EQ(bodies.size(), 1u);
  ExpectPackets(bodies[0], 5, "kept");
}

TEST(Utterance, EndsAtPauses) {
  // Runs of frames: above 0 with audio, below 0 without.
  const struct {
    std::vector<int> frames;
    std::vector<std::size_t> utterances;  // frames with audio of each
    int length, silent;                   // what is being collected at the end
  } cases[] = {
      {{4, -7}, {}, 0, 0},
      {{5, -7}, {5}, 0, 0},
      {{5, -6}, {}, 5, 6},
      {{4, -6, 1, -6}, {}, 5, 6},
      {{2, -6, 2, -6, 2, -8}, {6}, 0, 1},
      {{-20}, {}, 0, 6},
      {{5, -21, 6, -7}, {5, 6}, 0, 0},
      {{-3, 5, -6, 1}, {}, 6, 0},
      {{1499}, {}, 1499, 0},
      {{1505, -7}, {1500, 5}, 0, 0},
      {{1504, -7}, {1500}, 0, 0},
      {{3000}, {1500, 1500}, 0, 0},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE("case " + std::to_string(&test - cases));
    RecognizerRig rig;
    for (const int run : test.frames)
      run > 0 ? rig.Speak(run) : rig.Pause(-run);
    EXPECT_EQ(rig.record->utterance_length, test.length * 640);
    EXPECT_EQ(rig.record->silent_frames, test.silent);
    EXPECT_EQ(rig.record->fill_index, static_cast<int>(test.utterances.size()));
    const std::vector<std::string> bodies = Bodies(&rig);
    ASSERT_EQ(bodies.size(), test.utterances.size());
    for (std::size_t i = 0; i < bodies.size(); ++i)
      ExpectPackets(bodies[i], test.utterances[i], "an Opus packet");
    if (test.length == 0) rig.ExpectEmpty();
  }
}

TEST(Utterance, CountsEveryFrameThatHasData) {
  RecognizerRig rig;
  rig.Speak(2, "");
  rig.Speak(1, std::string(257, 'x'));
  EXPECT_EQ(rig.host.TakeReports(), Reports{kTooLong});
  rig.Say(2, std::string(256, 'y'));
  rig.Say(5, std::string(300, 'x'));  // nothing but frames that are too long: there is nothing to flush
  Reports reports(5, kTooLong);
  reports.push_back("0 E2022110231:Failed to flush audio data. Audio data does not exist.");
  EXPECT_EQ(rig.host.TakeReports(), reports);
  const std::vector<std::string> bodies = Bodies(&rig);
  ASSERT_EQ(bodies.size(), 1u);
  ExpectOpusStream(bodies[0], {"", "", std::string(256, 'y'), std::string(256, 'y')});
  rig.ExpectEmpty();
  EXPECT_EQ(rig.record->utterance_length, 0);
}

TEST(Utterance, NinthWaitingOneIsDroppedWithAWarning) {
  RecognizerRig rig;
  for (int i = 0; i < 8; ++i)
    rig.Say(5, std::to_string(i));
  EXPECT_EQ(rig.host.TakeReports(), Reports{});
  rig.Say(5, "ninth");
  EXPECT_EQ(rig.host.TakeReports(),
            Reports{"1 W2023020741:Discarded an utterance because eight utterances are waiting to be recognized."});
  EXPECT_EQ(rig.DataSize(), kHeaderPages);
  const std::vector<std::string> bodies = Bodies(&rig);
  ASSERT_EQ(bodies.size(), 8u);
  for (std::size_t i = 0; i < 8; ++i)
    ExpectPackets(bodies[i], 5, std::to_string(i));
  rig.Answer(Recognized(""));
  EXPECT_EQ(rig.executor.exchanges().size(), 9u);
  EXPECT_EQ(rig.record->send_index, 1);
}

TEST(Utterance, WaitsForRoomForItsHeaderPages) {
  RecognizerRig rig;
  // While lane 0 gives 91 bytes at most, no stream can begin, and nothing may stand in front of the header pages.
  rig.host.acquire_limit = [](std::uint32_t lane, std::uint32_t size) { return lane == 0 ? 91u : size; };
  rig.Say(5);  // the flush finds no room: the utterance is dropped, and the next stream does not begin
  EXPECT_EQ(rig.host.TakeReports(), (Reports{kNoRoom, kNoRoom}));
  EXPECT_EQ(rig.DataSize(), 0u);
  rig.Speak(2, "lost");
  EXPECT_EQ(rig.host.TakeReports(), (Reports{kNoRoom, kNoRoom}));
  EXPECT_EQ(rig.DataSize(), 0u);
  EXPECT_EQ(rig.record->utterance_length, 2 * 640);
  ExpectNextIsPosted(&rig);
}

TEST(Utterance, IsNeverPostedInPart) {
  RecognizerRig rig;
  rig.host.acquire_limit = [](std::uint32_t lane, std::uint32_t size) {
    return lane == 1 && size > 91 ? size - 1 : size;
  };
  rig.Say(5);
  rig.ExpectEmpty();

  // Nothing begins behind a stream that cannot be had at all.
  rig.host.acquire_limit = [](std::uint32_t lane, std::uint32_t size) { return lane == 1 ? 0 : size; };
  rig.Say(5);
  EXPECT_EQ(rig.FilledSlots(), 0);
  ExpectNextIsPosted(&rig);
}

// The audio path must never wait: neither locks nor allocations nor sleeps nor threads.
TEST(Utterance, AudioPathUsesNoServiceThatCanBlock) {
  RecognizerRig rig;
  const int allowed[] = {SLOT(atomic_load),
                         SLOT(atomic_store),
                         SLOT(memory_copy),
                         SLOT(memory_clear),
                         SLOT(ring_buffer_acquire),
                         SLOT(ring_buffer_release),
                         SLOT(ring_buffer_commit),
                         SLOT(ring_buffer_get_data_size),
                         SLOT(ring_buffer_split_chunk)};
  rig.host.ForgetCalls();
  rig.Speak(2);
  EXPECT_EQ(rig.host.Count(SLOT(ring_buffer_acquire)), 2) << "one per frame with audio";
  rig.Say(200, std::string(256, 'x'));
  rig.Say(4);
  for (const int slot : rig.host.calls)
    EXPECT_NE(std::ranges::count(allowed, slot), 0) << "slot " << slot;
  rig.host.ForgetCalls();
  rig.Pause(1);
  EXPECT_EQ(rig.host.calls, std::vector<int>{SLOT(atomic_load)}) << "a frame without audio costs next to nothing";
}

// Made for the thread sanitizer: audio and updates of one recognizer may overlap.
TEST(Utterance, AudioMayOverlapUpdates) {
  RecognizerRig rig;
  std::atomic<bool> done{false};
  std::thread audio([&] {
    for (int i = 0; i < 60; ++i)
      rig.Say(5 + i % 3);
    done = true;
  });
  while (!done)
    EXPECT_EQ(zelSttRecognizer_Update(rig.handle), 1u);
  audio.join();
  rig.Update(40);
  rig.ExpectEmpty();
  std::size_t dropped = 0;
  for (const std::string& report : rig.host.TakeReports())
    dropped += report.starts_with("1 W");
  EXPECT_EQ(rig.executor.exchanges().size() + dropped, 60u);
  ExpectWholeStreams(rig.executor.exchanges());
}

// Made for the sanitizers: a member who is disabled in the middle of a frame must not lose its stream under that frame.
TEST(Utterance, MemberMayBeDisabledWhileAudioGoesOn) {
  RecognizerRig rig;
  std::atomic<bool> done{false};
  std::thread audio([&] {
    const SttAudioFrame voice = {reinterpret_cast<const std::uint8_t*>("an Opus packet"), 14}, silence = {nullptr, 0};
    for (int i = 0; i < 20000; ++i)
      rig.slots->PutAudioFrame(rig.record, i % 13 < 6 ? &voice : &silence);
    done = true;
  });
  for (std::uint32_t i = 0; !done; ++i) {
    zelSttRecognizer_EnableMember(rig.handle, i % 4 == 0 ? 0 : 1);
    zelSttRecognizer_Update(rig.handle);
  }
  audio.join();
  zelSttRecognizer_EnableMember(rig.handle, 1);
  rig.Update(40);
  for (const std::string& report : rig.host.TakeReports())
    EXPECT_TRUE(report.starts_with("1 W2023020741") || report.starts_with("0 E2022110401")) << report;
  ExpectWholeStreams(rig.executor.exchanges());
}

// What the race above meets by chance: the member is disabled, and updated, while one of its frames is taken.
TEST(Utterance, AFrameBeingTakenKeepsItsStream) {
  RecognizerRig rig;
  rig.Speak(5, "kept");
  bool disabled = false;
  rig.host.acquire_limit = [&](std::uint32_t, std::uint32_t size) {
    if (!std::exchange(disabled, true)) {
      zelSttRecognizer_EnableMember(rig.handle, 0);
      rig.Update();
    }
    return size;
  };
  rig.Speak(1, "kept");
  rig.host.acquire_limit = nullptr;
  zelSttRecognizer_EnableMember(rig.handle, 1);
  rig.Pause();
  const std::vector<std::string> bodies = Bodies(&rig);
  ASSERT_EQ(bodies.size(), 1u);
  ExpectPackets(bodies[0], 6, "kept");
}

}  // namespace
