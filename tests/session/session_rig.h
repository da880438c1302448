// An initialized library and sessions of small recognizers on the scripted host.
#pragma once

#include <string>
#include <utility>

#include "bridge.h"
#include "recognition_request.h"
#include "recognizer.h"
#include "recognizer_record.h"
#include "scripted_executor.h"
#include "scripted_host.h"
#include "session_body.h"
#include "zel_rtc_speech_to_text.h"

struct LibraryRig {
  LibraryRig() : area(zelRtcSpeechToText_CalculateWorkSize(nullptr)) {
    EXPECT_EQ(zelRtcSpeechToText_Initialize(nullptr, area.data(), area.size()), 1u);
  }
  ~LibraryRig() {
    if (zelRtcSpeechToText_IsInitialized() != 0) zelRtcSpeechToText_Finalize();
    EXPECT_EQ(zelRtcSpeechToText_IsInitialized(), 0u);
  }
  ScriptedHost host;
  ScriptedExecutor executor;
  WorkArea area;
};

struct SessionRig {
  explicit SessionRig(std::uint32_t members, std::size_t misalignment = 0)
      : config{4, 20, 0, members},
        area(zelRtcSpeechToTextSession_CalculateWorkSize(&config), misalignment),
        session(zelRtcSpeechToTextSession_Create(&config, area.data(), area.size())),
        body(session->body),
        slots(session->interface_table) {}
  ~SessionRig() {
    if (session != nullptr) Destroy();
  }
  void Destroy() { EXPECT_EQ(zelRtcSpeechToTextSession_Destroy(std::exchange(session, nullptr)), 1u); }
  SttRecognizerHn Acquire(const std::string& client_id = "") {
    SttRecognizerHn recognizer = slots->AcquireRecognizer(body);
    if (recognizer == nullptr) return nullptr;
    recognizer->interface_table->SetClientId(recognizer->instance,
                                             reinterpret_cast<const std::uint8_t*>(client_id.c_str()),
                                             static_cast<std::uint32_t>(client_id.size()) + 1);
    return recognizer;
  }
  std::uint32_t Release(SttRecognizerHn recognizer) { return slots->ReleaseRecognizer(body, recognizer); }
  const ZelRtcSpeechToTextSessionConfig config;
  WorkArea area;
  ZelRtcSpeechToTextSessionHn session;
  SttSessionBody* const body;
  const SttSessionInterface* const slots;
};
