// A host that loads the plug-in by its file and knows it by names, byte offsets and slot numbers only, as one written
// in another language would. Its services are the reference host's.
//
// Thread rule: the plug-in's own for every call.
#pragma once

#include <gtest/gtest.h>

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include <cstdint>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "bridge_services.h"
#include "reports.h"

#ifdef _WIN32
inline void* load(const char* file) {
  return LoadLibraryA(file);
}
inline void* find(void* library, const char* name) {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}
inline bool unload(void* library) {
  return FreeLibrary(static_cast<HMODULE>(library)) != FALSE;
}
#else
inline void* load(const char* file) {
  return dlopen(file, RTLD_NOW | RTLD_LOCAL);
}
inline void* find(void* library, const char* name) {
  return dlsym(library, name);
}
inline bool unload(void* library) {
  return dlclose(library) == 0;
}
#endif

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
// Calls the function at a slot of the table at `table_at` of `record`, with the pointer behind the table's first.
template <typename Result, typename... Arguments>
Result call_slot(void* record, std::size_t table_at, std::size_t slot, Arguments... arguments) {
  const auto function = peek<Result (*)(void*, Arguments...)>(peek<void*>(record, table_at), 8 * slot);
  return function(peek<void*>(record, table_at + 8), arguments...);
}

// The library initialized, and one session of two members attached to it. Any report fails the test.
class RawHost : public testing::Test {
 protected:
  RawHost() {
    zel::host::set_report_sink([](const zel::host::Report& report) { ADD_FAILURE() << report.message; });
    void* const none = nullptr;
    plugin<void>("_SetBaseRtcBridgeInterface", static_cast<const void*>(&zel::host::bridge_interface()));
    auto size = plugin<std::int32_t>("_CalculateWorkSize", none);
    EXPECT_EQ(plugin("_Initialize", none, area(size), size), 1U);
    char bytes[16] = {};
    void* const config = bytes;
    plugin<void>("Session_SetDefaultConfig", config);
    EXPECT_EQ(peek<std::uint32_t>(config, 4), 1200U);
    poke(config, 0, std::uint16_t{4});
    poke(config, 12, std::uint32_t{2});
    size = plugin<std::int32_t>("Session_CalculateWorkSize", config);
    session_ = plugin<void*>("Session_Create", config, area(size), size);
    EXPECT_EQ(peek<void*>(session_, 0), nullptr) << "the work area is ours";
    EXPECT_EQ(session(1), 1U);
  }
  ~RawHost() override {
    EXPECT_EQ(session(6), 1U);
    EXPECT_EQ(session(2), 1U);
    EXPECT_EQ(plugin("Session_Destroy", session_), 1U);
    plugin<void>("_Finalize");
    EXPECT_EQ(plugin("_IsInitialized"), 0U);
    EXPECT_TRUE(unload(library_));
    zel::host::set_report_sink({});
  }

  // Calls zelRtcSpeechToText<name>, a slot of the session, or one of a member's recognizer; the caller knows the types.
  template <typename Result = std::uint32_t, typename... Arguments>
  Result plugin(const std::string& name, Arguments... arguments) const {
    void* function = find(library_, ("zelRtcSpeechToText" + name).c_str());
    return reinterpret_cast<Result (*)(Arguments...)>(function)(arguments...);
  }
  template <typename Result = std::uint32_t, typename... Arguments>
  Result session(std::size_t slot, Arguments... arguments) {
    return call_slot<Result>(session_, 8, slot, arguments...);
  }
  template <typename Result = std::uint32_t, typename... Arguments>
  static Result member(void* recognizer, std::size_t slot, Arguments... arguments) {
    return call_slot<Result>(recognizer, 0, slot, arguments...);
  }

  void* add_member(std::uint32_t id, const std::string& client_id) {
    void* recognizer = session<void*>(4);
    EXPECT_EQ(member(recognizer, 0, id), 1U);
    EXPECT_EQ(member(recognizer, 1, client_id.c_str(), static_cast<std::uint32_t>(client_id.size() + 1)), 1U);
    return recognizer;
  }
  // A null packet is a frame without audio.
  static std::uint32_t put_frame(void* recognizer, const void* packet, std::uint32_t size) {
    char frame[16] = {};
    poke(frame, 0, packet);
    poke(frame, 8, size);
    return member(recognizer, 2, static_cast<const void*>(frame));
  }

  void* session_ = nullptr;

 private:
  void* area(std::int32_t size) { return areas_.emplace_back(static_cast<std::size_t>(size)).data(); }

  void* const library_ = load(ZEL_PLUGIN_FILE);
  std::deque<std::vector<char>> areas_;  // the library's and the session's
};
