// A recognizer on the scripted host, with a scripted executor in the place of the service.
#pragma once

#include "bridge.h"
#include "ogg_pages.h"
#include "packet_ref.h"
#include "recognition_request.h"
#include "recognizer.h"
#include "recognizer_record.h"
#include "scripted_executor.h"
#include "scripted_host.h"

inline constexpr std::uint32_t kHeaderPages = 91;  // bytes

// Each of the stream's packets is `packet`.
inline void ExpectPackets(const std::string& stream, std::size_t count, const std::string& packet) {
  ExpectOpusStream(stream, std::vector<std::string>(count, packet));
}

// The text of a packet, which is released.
inline std::string TakeText(PacketRef* packet) {
  if (packet == nullptr) return "(none)";
  std::string text = reinterpret_cast<const char*>(packet->payload->field_values[0]);
  EXPECT_EQ(packet->payload->field_values[1], text.size());
  zelPacketRef_Release(packet);
  return text;
}

struct RecognizerRig {
  explicit RecognizerRig(std::uint16_t messages = 4, std::uint32_t text_size = 1200, std::size_t misalignment = 0)
      : config{16, messages, text_size, 0},
        area(zelSttRecognizer_CalculateWorkSize(&config), misalignment),
        handle(zelSttRecognizer_Create(&config, area.data(), area.size())),
        record(handle->instance),
        slots(handle->interface_table) {
    zelSttRecognizer_SetUrl(handle, "http://service/recognize");
    zelSttRecognizer_SetAuthorization(handle, "Bearer token");
  }
  ~RecognizerRig() {
    EXPECT_EQ(host.TakeReports(), Reports{});
    EXPECT_EQ(zelSttRecognizer_Destroy(handle), 1u);
  }

  std::uint32_t Put(const std::string& packet) {
    const SttAudioFrame frame = {reinterpret_cast<const std::uint8_t*>(packet.data()),
                                 static_cast<std::uint32_t>(packet.size())};
    return slots->PutAudioFrame(record, &frame);
  }
  void Speak(int frames, const std::string& packet = "an Opus packet") {
    for (int i = 0; i < frames; ++i)
      EXPECT_EQ(Put(packet), 1u);
  }
  void Pause(int frames = 7) {
    const SttAudioFrame nothing = {nullptr, 99};
    for (int i = 0; i < frames; ++i)
      EXPECT_EQ(slots->PutAudioFrame(record, &nothing), 1u);
  }
  void Say(int frames, const std::string& packet = "an Opus packet") {
    Speak(frames, packet);
    Pause();
  }
  // The exchange that an update starts has ended before the next one.
  void Update(int times = 1) {
    for (; times > 0; --times) {
      EXPECT_EQ(zelSttRecognizer_Update(handle), 1u);
      host.WaitForWorkers();
    }
  }
  // Has an utterance answered and the answer delivered.
  void Answer(const ScriptedReply& reply) {
    executor.Reply(reply);
    Say(5);
    Update(3);
    EXPECT_EQ(record->request->state, STT_REQUEST_IDLE);
  }
  std::string Body(std::size_t exchange) { return executor.exchanges().at(exchange).body; }
  // The header pages of the next stream stand in lane 1, and all else is free.
  void ExpectEmpty() const {
    EXPECT_EQ(zelRingBuffer_GetDataSize(record->ring_buffer, 1), kHeaderPages);
    EXPECT_EQ(zelRingBuffer_GetDataSize(record->ring_buffer, 0), host.ring_bytes - kHeaderPages);
    EXPECT_EQ(FilledSlots(), 0);
  }
  int FilledSlots() const {
    int filled = 0;
    for (const ZelRingBufferChunk& slot : record->utterance_slots)
      filled += slot.size != 0;
    return filled;
  }

  ScriptedHost host;
  ScriptedExecutor executor;
  const SttRecognizerConfig config;
  WorkArea area;
  const SttRecognizerHn handle;
  SttRecognizer* const record;
  const SttRecognizerInterface* const slots;
};
