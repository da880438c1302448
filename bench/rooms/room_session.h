// A session of the plug-in on the reference host, driven by hand: what the benchmarks of this folder measure.
//
// Thread rule: everything on the main thread. Errors: std::runtime_error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "zel_rtc_speech_to_text.h"
#include "zel_rtc_speech_to_text_host.h"

namespace rooms {

/** Pages of their own, none of them resident before it is touched. */
class Area {
 public:
  explicit Area(std::size_t size);
  ~Area();
  Area(const Area&) = delete;
  Area& operator=(const Area&) = delete;

  std::byte* data() const { return data_; }
  std::size_t size() const { return size_; }
  /** Gives the pages back: the area is as new. */
  void Discard();

 private:
  std::byte* data_;
  std::size_t size_;
};

/** Installs the reference host, silences its reports and initializes the plug-in, once per process. */
void InitializeLibrary();

/** The defaults with that many members. */
ZelRtcSpeechToTextSessionConfig SessionConfig(std::uint32_t members);
/** Bytes of work area of such a session. */
std::size_t SessionSize(std::uint32_t members);

class RoomSession {
 public:
  /** Attached; nobody is active. */
  explicit RoomSession(std::uint32_t members);
  ~RoomSession();
  RoomSession(const RoomSession&) = delete;
  RoomSession& operator=(const RoomSession&) = delete;

  /** Takes all recognizers back and lends the first `count` of the free list. */
  void SetActive(std::uint32_t count);
  std::span<const SttRecognizerHn> active() const { return active_; }
  void SetEndpoint(const char* url);
  void Update() { session_->interface_table->Update(session_->body); }
  const Area& area() const { return area_; }

 private:
  Area area_;
  ZelRtcSpeechToTextSessionHn session_ = nullptr;
  std::vector<SttRecognizerHn> active_;
};

}  // namespace rooms
