// A session of the plug-in, driven by hand, on the bridge services that the program has installed.
//
// Thread rule: everything on one thread. Errors: std::runtime_error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "zel_rtc_speech_to_text.h"
#include "zel_rtc_speech_to_text_host.h"

namespace bench {

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
  void discard();

 private:
  std::byte* data_;
  std::size_t size_;
};

/** The plug-in is initialized as long as it lives. One at a time; outlives all sessions. */
class Library {
 public:
  Library();
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

 private:
  Area area_;
};

/** The defaults with that many members. */
ZelRtcSpeechToTextSessionConfig session_config(std::uint32_t members);
/** Bytes of work area of such a session. */
std::size_t session_size(std::uint32_t members);

class RoomSession {
 public:
  explicit RoomSession(std::uint32_t members);
  ~RoomSession();
  RoomSession(const RoomSession&) = delete;
  RoomSession& operator=(const RoomSession&) = delete;

  /** Attaches the session, takes all recognizers back and lends the first `count` of the free list. */
  void lend(std::uint32_t count);
  std::span<const SttRecognizerHn> lent() const { return lent_; }
  void set_endpoint(const std::string& url);
  void update() { session_->interface_table->Update(session_->body); }
  ZelRtcSpeechToTextSessionHn handle() const { return session_; }
  const Area& area() const { return area_; }

 private:
  Area area_;
  ZelRtcSpeechToTextSessionHn session_;
  std::vector<SttRecognizerHn> lent_;
};

}  // namespace bench
