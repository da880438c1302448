#include "raw_host.h"

#include <chrono>
#include <cstdio>
#include <thread>

#include "bridge_services.h"

namespace {

constexpr int kUsedSlots[] = {2,  3,  7,  10, 11, 12, 13, 14, 15, 16, 17, 22, 23, 24, 25, 27,
                              28, 29, 30, 31, 33, 34, 35, 36, 37, 38, 43, 44, 47, 48, 49, 50,
                              51, 52, 53, 75, 77, 78, 79, 80, 81, 82, 83, 84, 85, 86, 87};
static_assert(std::size(kUsedSlots) == 47);

std::mutex lock;
std::vector<std::string> kept_reports;
std::atomic<int> strays{0};

void keep(std::uint32_t level, std::string report) {
  std::lock_guard hold(lock);
  kept_reports.push_back(std::to_string(level) + " " + std::move(report));
}
void notify(std::uint32_t level, const char* text) {
  keep(level, std::string(text).substr(0, 11));
}
void notify1(std::uint32_t level, const char* text, std::uint64_t) {
  notify(level, text);
}
void notify2(std::uint32_t level, const char* text, std::uint64_t, std::uint64_t) {
  notify(level, text);
}
std::int32_t notify_param(std::uint32_t level, const char* identifier, std::int32_t code) {
  keep(level, std::string(identifier) + " " + std::to_string(code));
  return 0;
}
void stray() {
  ++strays;
}

}  // namespace

RawText read_text(const void* packet_ref) {
  EXPECT_EQ(peek<std::uint64_t>(packet_ref, 8), 0U);
  EXPECT_EQ(peek<std::uint32_t>(packet_ref, 16), 0U);
  const auto* packet = peek<const char*>(packet_ref, 0);
  EXPECT_EQ(peek<std::uint32_t>(packet, 0), 1572U);
  EXPECT_EQ(peek<std::uint8_t>(packet, 4), 0);
  EXPECT_EQ((peek<std::array<std::uint32_t, 9>>(packet, 8)), (std::array<std::uint32_t, 9>{1024, 512, 32, 4}));
  RawText text;
  text.text = peek<const char*>(packet, 48);
  EXPECT_EQ(peek<std::uint64_t>(packet, 56), text.text.size());
  text.member_id = static_cast<std::uint32_t>(peek<std::uint64_t>(packet, 64));
  text.timestamp = peek<std::uint64_t>(packet, 72);
  return text;
}

void release_text(void* packet_ref) {
  const auto count = peek<std::uint32_t>(packet_ref, 20);
  ASSERT_GT(count, 0U);
  poke(packet_ref, 20, count - 1);
  if (count > 1) return;
  if (const auto callback = peek<void (*)(void*, void*)>(packet_ref, 32); callback != nullptr)
    callback(peek<void*>(packet_ref, 40), packet_ref);
  void* queue = peek<void*>(packet_ref, 24);
  const auto write_index = peek<std::uint32_t>(queue, 16);
  poke(peek<void*>(queue, 0), 8 * (write_index % peek<std::uint32_t>(queue, 8)), packet_ref);
  poke(queue, 16, write_index + 1);
}

RawHost::RawHost() {
  table_.fill(reinterpret_cast<void*>(&stray));
  for (const int slot : kUsedSlots)
    table_[static_cast<std::size_t>(slot)] =
        peek<void*>(zel::host::bridge_interface().table, 8 * static_cast<std::size_t>(slot));
  table_[22] = reinterpret_cast<void*>(&notify);
  table_[23] = reinterpret_cast<void*>(&notify1);
  table_[24] = reinterpret_cast<void*>(&notify2);
  table_[25] = reinterpret_cast<void*>(&notify_param);
  char record[16] = {};
  poke(record, 0, std::uint32_t{0x20230503});
  poke(record, 8, table_.data());
  plugin_.call<void>("_SetBaseRtcBridgeInterface", static_cast<void*>(record));

  void* const none = nullptr;
  library_work_.resize(static_cast<std::size_t>(plugin_.call<std::int32_t>("_CalculateWorkSize", none)));
  EXPECT_EQ(plugin_.call<std::uint32_t>("_Initialize", none, static_cast<void*>(library_work_.data()),
                                        static_cast<std::int32_t>(library_work_.size())),
            1U);
  char config[16] = {};
  plugin_.call<void>("Session_SetDefaultConfig", static_cast<void*>(config));
  poke(config, 0, std::uint16_t{4});
  poke(config, 12, std::uint32_t{2});
  session_work_.resize(
      static_cast<std::size_t>(plugin_.call<std::int32_t>("Session_CalculateWorkSize", static_cast<void*>(config))));
  session_ = plugin_.call<void*>("Session_Create", static_cast<void*>(config), static_cast<void*>(session_work_.data()),
                                 static_cast<std::int32_t>(session_work_.size()));
  EXPECT_EQ(peek<void*>(session_, 0), nullptr) << "the work area is ours";
  EXPECT_EQ(session_call(1), 1U);
}

RawHost::~RawHost() {
  EXPECT_EQ(session_call(6), 1U);
  EXPECT_EQ(session_call(2), 1U);
  EXPECT_EQ(plugin_.call<std::uint32_t>("Session_Destroy", session_), 1U);
  plugin_.call<void>("_Finalize");
  EXPECT_EQ(plugin_.call<std::uint32_t>("_IsInitialized"), 0U);
  EXPECT_EQ(take_reports(), std::vector<std::string>{});
  EXPECT_EQ(strays.exchange(0), 0) << "calls of slots that nobody calls";
}

void RawHost::set_endpoint(std::uint16_t port) {
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/stt";
  EXPECT_EQ(session_call(10, url.c_str(), static_cast<std::int32_t>(url.size())), 1U);
  EXPECT_EQ(session_call(9, "token", std::int32_t{5}), 1U);
}

void* RawHost::add_member(std::uint32_t id, const std::string& client_id) {
  void* recognizer = session_call<void*>(4);
  EXPECT_NE(recognizer, nullptr);
  EXPECT_EQ(member_call(recognizer, 0, id), 1U);
  EXPECT_EQ(member_call(recognizer, 1, static_cast<const void*>(client_id.c_str()),
                        static_cast<std::uint32_t>(client_id.size() + 1)),
            1U);
  return recognizer;
}

std::uint32_t RawHost::put_frame(void* recognizer, const void* packet, std::uint32_t size) {
  char frame[16] = {};
  poke(frame, 0, packet);
  poke(frame, 8, size);
  return member_call(recognizer, 2, static_cast<const void*>(frame));
}

void RawHost::say(void* recognizer, int frames) {
  static const char packet[60] = {0x58};
  for (int i = 0; i < frames + 7; ++i)
    ASSERT_EQ(put_frame(recognizer, i < frames ? packet : nullptr, sizeof packet), 1U);
}

void* RawHost::wait_for_text(void* recognizer) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::chrono::steady_clock::now() < deadline) {
    session_call<void>(0);
    if (void* packet_ref = member_call<void*>(recognizer, 3); packet_ref != nullptr) return packet_ref;
    std::this_thread::yield();
  }
  ADD_FAILURE() << "no text";
  return nullptr;
}

std::vector<std::string> RawHost::take_reports() {
  std::lock_guard hold(lock);
  return std::exchange(kept_reports, {});
}
