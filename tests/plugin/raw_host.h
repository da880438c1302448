// A host that knows the plug-in by byte offsets and slot numbers only, as one written in another language would. Its
// services are the reference host's, put into a bare table by slot number; reports are kept.
//
// Thread rule: the plug-in's own for every call; reports come from any thread.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "loaded_plugin.h"

// The value at a byte offset.
template <typename Value>
Value peek(const void* base, std::size_t offset) {
  Value value;
  std::memcpy(&value, static_cast<const char*>(base) + offset, sizeof value);
  return value;
}
template <typename Value>
void poke(void* base, std::size_t offset, Value value) {
  std::memcpy(static_cast<char*>(base) + offset, &value, sizeof value);
}
// Calls the function at a slot of a table of functions.
template <typename Result, typename... Arguments>
Result call_slot(const void* table, std::size_t slot, Arguments... arguments) {
  return peek<Result (*)(Arguments...)>(table, 8 * slot)(arguments...);
}

// A text packet, read and released by its layout.
struct RawText {
  std::string text;
  std::uint32_t member_id = 0;
  std::uint64_t timestamp = 0;
};
RawText read_text(const void* packet_ref);
void release_text(void* packet_ref);

// The library initialized, and one session of two members attached to it.
class RawHost : public testing::Test {
 protected:
  RawHost();
  ~RawHost() override;

  template <typename Result = std::uint32_t, typename... Arguments>
  Result session_call(std::size_t slot, Arguments... arguments) {
    return call_slot<Result>(peek<void*>(session_, 8), slot, peek<void*>(session_, 16), arguments...);
  }
  template <typename Result = std::uint32_t, typename... Arguments>
  static Result member_call(void* recognizer, std::size_t slot, Arguments... arguments) {
    return call_slot<Result>(peek<void*>(recognizer, 0), slot, peek<void*>(recognizer, 8), arguments...);
  }

  void set_endpoint(std::uint16_t port);
  void* add_member(std::uint32_t id, const std::string& client_id);
  static std::uint32_t put_frame(void* recognizer, const void* packet, std::uint32_t size);
  // Frames with audio, then seven without.
  static void say(void* recognizer, int frames = 5);
  // Updates until the member has a packet; null after half a minute.
  void* wait_for_text(void* recognizer);

  std::vector<std::string> take_reports();  // "<level> <identifier>", or "<level> <identifier> <code>"

  LoadedPlugin plugin_;
  void* session_ = nullptr;

 private:
  std::array<void*, 88> table_{};
  std::vector<char> library_work_, session_work_;
};
