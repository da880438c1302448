#include "utterance.h"

#include "recognizer_rig.h"

namespace {

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

TEST(Utterance, EndsAtPauses) {
  // Runs of frames: above 0 with audio, below 0 without.
  const struct {
    std::vector<int> frames;
    std::vector<std::size_t> utterances;  // frames with audio of each
    int length, silent;                   // what is being collected at the end
  } cases[] = {
      {{4, -7}, {}, 0, 0},        {{5, -6}, {}, 5, 6},   {{4, -6, 1, -6}, {}, 5, 6},    {{5, -21, 6, -7}, {5, 6}, 0, 0},
      {{-3, 5, -6, 1}, {}, 6, 0}, {{1499}, {}, 1499, 0}, {{1505, -7}, {1500, 5}, 0, 0}, {{1504, -7}, {1500}, 0, 0},
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
  // Nor does it come back later, behind what was said meanwhile.
  rig.host.acquire_limit = nullptr;
  rig.Speak(6, "secret");
  rig.host.acquire_limit = [](std::uint32_t lane, std::uint32_t size) { return lane == 1 ? 0 : size; };
  zelSttRecognizer_EnableMember(rig.handle, 0);
  rig.Update();
  zelSttRecognizer_EnableMember(rig.handle, 1);
  rig.Speak(5, "lost");
  rig.host.acquire_limit = nullptr;
  rig.Pause();
  EXPECT_EQ(rig.FilledSlots(), 0);
  rig.Say(5, "kept");
  const std::vector<std::string> bodies = Bodies(&rig);
  ASSERT_EQ(bodies.size(), 1u);
  ExpectPackets(bodies[0], 5, "kept");
}

TEST(Utterance, FramesCostLittle) {
  RecognizerRig rig;
  rig.host.ForgetCalls();
  rig.Speak(2);
  EXPECT_EQ(rig.host.Count(SLOT(ring_buffer_acquire)), 2) << "one per frame with audio";
  rig.host.ForgetCalls();
  rig.Pause(1);
  EXPECT_EQ(rig.host.calls, std::vector<int>{SLOT(atomic_load)}) << "a frame without audio costs next to nothing";
}

// Made for the thread sanitizer: audio may overlap updates, and a member be disabled in the middle of a frame.
TEST(Utterance, AudioMayOverlapUpdates) {
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
  for (const Exchange& exchange : rig.executor.exchanges())  // whole streams, however many packets they have
    ExpectPackets(exchange.body, (exchange.body.size() - kHeaderPages - 27) / 15, "an Opus packet");
}

}  // namespace
