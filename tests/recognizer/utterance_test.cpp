#include "utterance.h"

#include <algorithm>

#include "ogg_pages.h"
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
  for (int i = 0; i < 3 * waiting; ++i)
    rig->Update();
  std::vector<std::string> bodies;
  for (const Exchange& exchange : rig->executor.exchanges())
    bodies.push_back(exchange.body);
  return bodies;
}

TEST(Utterance, EndsAtPauses) {
  // Runs of frames: above 0 with audio, below 0 without.
  const struct {
    std::vector<int> frames;
    std::vector<int> utterances;  // frames with audio of each
    int length, silent;           // what is being collected at the end
  } cases[] = {
      {{4, -7}, {}, 0, 0},
      {{5, -7}, {5}, 0, 0},
      {{5, -6}, {}, 5, 6},
      {{4, -6, 1, -6}, {}, 5, 6},
      {{4, -6, 1, -7}, {5}, 0, 0},
      {{2, -6, 2, -6, 2, -8}, {6}, 0, 1},
      {{-20}, {}, 0, 6},
      {{5, -21, 6, -7}, {5, 6}, 0, 0},
      {{-6, 5, -7}, {5}, 0, 0},
      {{-3, 5, -6, 1}, {}, 6, 0},
      {{1499}, {}, 1499, 0},
      {{1500}, {1500}, 0, 0},
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
      ExpectOpusStream(bodies[i],
                       std::vector<std::string>(static_cast<std::size_t>(test.utterances[i]), "an Opus packet"));
    EXPECT_TRUE(test.length > 0 || rig.DataSize() == kHeaderPages);
  }
}

TEST(Utterance, CountsEveryFrameThatHasData) {
  RecognizerRig rig;
  const SttAudioFrame nothing = {nullptr, 0};
  EXPECT_EQ(rig.slots->PutAudioFrame(nullptr, &nothing), 0u);
  EXPECT_EQ(rig.slots->PutAudioFrame(rig.record, nullptr), 0u);
  EXPECT_EQ(zelSttRecognizer_EndUtterance(nullptr), 0u);
  zelSttRecognizer_BeginStream(nullptr);
  EXPECT_EQ(rig.host.TakeReports(),
            (Reports{"0 E2022111441 -2", "0 E2022111442 -2", "0 E2022111437 -2", "0 E2023020739 -2"}));

  rig.Speak(2, "");
  rig.Speak(1, std::string(257, 'x'));
  EXPECT_EQ(rig.host.TakeReports(), Reports{kTooLong});
  rig.Speak(2, std::string(256, 'y'));
  rig.Pause();
  // Nothing but frames that are too long: there is nothing to flush.
  rig.Speak(5, std::string(300, 'x'));
  rig.Pause();
  Reports reports(5, kTooLong);
  reports.push_back("0 E2022110231:Failed to flush audio data. Audio data does not exist.");
  EXPECT_EQ(rig.host.TakeReports(), reports);
  EXPECT_EQ(rig.DataSize(), kHeaderPages);
  EXPECT_EQ(rig.record->utterance_length, 0);
  const std::vector<std::string> bodies = Bodies(&rig);
  ASSERT_EQ(bodies.size(), 1u);
  ExpectOpusStream(bodies[0], {"", "", std::string(256, 'y'), std::string(256, 'y')});
}

TEST(Utterance, NinthWaitingOneIsDroppedWithAWarning) {
  RecognizerRig rig;
  for (int i = 0; i < 8; ++i) {
    rig.Speak(5, std::string(1, static_cast<char>('0' + i)));
    rig.Pause();
  }
  EXPECT_EQ(rig.FilledSlots(), 8);
  EXPECT_EQ(rig.host.TakeReports(), Reports{});
  rig.Speak(5, "ninth");
  rig.Pause();
  const Reports reports = rig.host.TakeReports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].substr(0, 3), "1 W");
  EXPECT_EQ(reports[0].find_first_not_of("0123456789", 3), 13u);
  EXPECT_EQ(reports[0][13], ':');
  EXPECT_EQ(rig.DataSize(), kHeaderPages);
  const std::vector<std::string> bodies = Bodies(&rig);
  ASSERT_EQ(bodies.size(), 8u);
  for (std::size_t i = 0; i < 8; ++i)
    ExpectOpusStream(bodies[i], std::vector<std::string>(5, std::string(1, static_cast<char>('0' + i))));
  rig.Answer(Recognized(""));
  EXPECT_EQ(rig.executor.exchanges().size(), 9u);
  EXPECT_EQ(rig.record->send_index, 1);
}

TEST(Utterance, WaitsForRoomForItsHeaderPages) {
  RecognizerRig rig;
  // While lane 0 gives 91 bytes at most, no stream can begin, and nothing may stand in front of the header pages.
  rig.host.acquire_limit = [](std::uint32_t lane, std::uint32_t size) { return lane == 0 ? 91u : size; };
  rig.Speak(5);
  rig.Pause();  // the flush finds no room: the utterance is dropped, and the next stream does not begin
  EXPECT_EQ(rig.host.TakeReports(), (Reports{kNoRoom, kNoRoom}));
  EXPECT_EQ(rig.DataSize(), 0u);
  rig.Speak(2, "lost");
  EXPECT_EQ(rig.host.TakeReports(), (Reports{kNoRoom, kNoRoom}));
  EXPECT_EQ(rig.DataSize(), 0u);
  EXPECT_EQ(rig.record->utterance_length, 2 * 640);
  rig.host.acquire_limit = nullptr;
  rig.Speak(5, "kept");
  rig.Pause();
  const std::vector<std::string> bodies = Bodies(&rig);
  ASSERT_EQ(bodies.size(), 1u);
  ExpectOpusStream(bodies[0], std::vector<std::string>(5, "kept"));
}

TEST(Utterance, IsNeverPostedInPart) {
  RecognizerRig rig;
  rig.host.acquire_limit = [](std::uint32_t lane, std::uint32_t size) {
    return lane == 1 && size > 91 ? size - 1 : size;
  };
  rig.Speak(5);
  rig.Pause();
  rig.host.acquire_limit = nullptr;
  EXPECT_EQ(rig.FilledSlots(), 0);
  EXPECT_EQ(rig.DataSize(), kHeaderPages) << "lane 1 is emptied";
  EXPECT_EQ(zelRingBuffer_GetDataSize(rig.record->ring_buffer, 0), rig.host.ring_bytes - kHeaderPages);
}

// Each service call of one utterance fails in turn; two utterances later everything is as if nothing had happened.
TEST(Utterance, RecoversFromEveryFailure) {
  for (const bool acquire : {true, false}) {
    for (int k = 1;; ++k) {
      SCOPED_TRACE((acquire ? "acquire " : "copy ") + std::to_string(k));
      RecognizerRig rig;
      int left = acquire ? k : 0;
      if (acquire) {
        rig.host.acquire_limit = [&](std::uint32_t, std::uint32_t size) { return --left == 0 ? 0 : size; };
      } else {
        rig.host.Fail(SLOT(memory_copy), k);
      }
      rig.Speak(5, "first");
      rig.Pause();
      Bodies(&rig);
      rig.host.acquire_limit = nullptr;
      const bool failed = acquire ? left <= 0 : rig.host.Failed();
      for (const std::string& report : rig.host.TakeReports())
        EXPECT_TRUE(failed &&
                    (report == kNoRoom || report.find("E2022121329:") == 2 || report.find("E2022110407:") == 2))
            << report;
      for (const char* packet : {"second", "third"}) {
        rig.Speak(5, packet);
        rig.Pause();
      }
      const std::vector<std::string> bodies = Bodies(&rig);
      ASSERT_GE(bodies.size(), 2u);
      ExpectOpusStream(bodies.back(), std::vector<std::string>(5, "third"));
      // What cannot be acquired costs audio at most; a stream that is posted is whole all the same.
      if (acquire) ExpectOpusStream(bodies[0], std::vector<std::string>(5, bodies.size() == 3 ? "first" : "second"));
      EXPECT_EQ(rig.DataSize(), kHeaderPages);
      EXPECT_EQ(zelRingBuffer_GetDataSize(rig.record->ring_buffer, 0), rig.host.ring_bytes - kHeaderPages);
      if (!failed) break;
    }
  }
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
  rig.Speak(1);
  rig.Speak(1);
  const int acquired = rig.host.Count(SLOT(ring_buffer_acquire));
  EXPECT_EQ(acquired, 2) << "one per frame with audio";
  rig.Speak(200, std::string(256, 'x'));
  rig.Pause();
  rig.Speak(4);
  rig.Pause();
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
    for (int i = 0; i < 60; ++i) {
      rig.Speak(5 + i % 3);
      rig.Pause();
    }
    done = true;
  });
  while (!done)
    EXPECT_EQ(zelSttRecognizer_Update(rig.handle), 1u);
  audio.join();
  for (int i = 0; i < 40; ++i)
    rig.Update();
  EXPECT_EQ(rig.FilledSlots(), 0);
  std::size_t dropped = 0;
  for (const std::string& report : rig.host.TakeReports())
    dropped += report.starts_with("1 W");
  const std::vector<Exchange> exchanges = rig.executor.exchanges();
  EXPECT_EQ(exchanges.size() + dropped, 60u);
  for (const Exchange& exchange : exchanges) {
    const std::size_t packets = (exchange.body.size() - kHeaderPages - 27) / 15;
    ExpectOpusStream(exchange.body, std::vector<std::string>(packets, "an Opus packet"));
  }
}

// Made for the sanitizers: a member who is disabled in the middle of a frame must not lose its stream under that frame.
TEST(Utterance, MemberMayBeDisabledWhileAudioGoesOn) {
  RecognizerRig rig;
  const std::string packet = "an Opus packet";
  const SttAudioFrame voice = {reinterpret_cast<const uint8_t*>(packet.data()), static_cast<uint32_t>(packet.size())};
  const SttAudioFrame silence = {nullptr, 0};
  std::atomic<bool> done{false};
  std::thread audio([&] {
    for (int i = 0; i < 20000; ++i)
      rig.slots->PutAudioFrame(rig.record, i % 13 < 6 ? &voice : &silence);
    done = true;
  });
  for (uint32_t i = 0; !done; ++i) {
    zelSttRecognizer_EnableMember(rig.handle, i % 4 == 0 ? 0 : 1);
    zelSttRecognizer_Update(rig.handle);
  }
  audio.join();
  zelSttRecognizer_EnableMember(rig.handle, 1);
  for (int i = 0; i < 40; ++i)
    rig.Update();
  for (const std::string& report : rig.host.TakeReports())
    EXPECT_TRUE(report.starts_with("1 W2023020741") || report.starts_with("0 E2022110401")) << report;
  for (const Exchange& exchange : rig.executor.exchanges()) {
    const std::size_t packets = (exchange.body.size() - kHeaderPages - 27) / 15;
    ExpectOpusStream(exchange.body, std::vector<std::string>(packets, packet));
  }
}

}  // namespace
