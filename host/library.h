// The plug-in's library and its sessions as objects: work areas sized, provided and given back in the right order.
// Part of the target zel_host_library, which links the plug-in; the rest of this folder does not need it.
//
// Thread rule: constructors and destructors of all these objects must not overlap one another; member operations of
// Session may be called from any thread. Errors: constructors throw LibraryError after the plug-in has reported why.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include "zel_rtc_speech_to_text.h"

namespace zel::host {

class LibraryError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/** Installs this folder's bridge services and initializes the plug-in; finalizes it when destroyed. One at a time. */
class Library {
 public:
  Library();
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

 private:
  std::unique_ptr<std::byte[]> work_;
};

/** The defaults with another number of members, each of whom costs work area and a thread. */
ZelRtcSpeechToTextSessionConfig session_config(std::uint32_t max_members);

/** A session. Must be destroyed before the library and after the room that has it attached. */
class Session {
 public:
  explicit Session(const ZelRtcSpeechToTextSessionConfig& config = session_config(16));
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  ZelRtcSpeechToTextSessionHn handle() const noexcept { return handle_; }

  /** False when no member of the room has this client id. */
  bool set_enabled(const std::string& client_id, bool enabled);
  /** False when no member of the room has this client id, or for an unknown language. */
  bool set_language(const std::string& client_id, ZelRtcSpeechToTextLanguage language);

 private:
  std::unique_ptr<std::byte[]> work_;
  ZelRtcSpeechToTextSessionHn handle_ = nullptr;
};

}  // namespace zel::host
