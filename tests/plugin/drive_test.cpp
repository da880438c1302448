// The plug-in driven as a host drives it, and its text packets read and released by their layouts.
#include <gmock/gmock.h>

#include <array>
#include <chrono>
#include <thread>

#include "http_server.h"
#include "raw_host.h"

namespace {

class Driven : public RawHost {
 protected:
  void say(void* recognizer) {
    static const char packet[60] = {0x58};
    for (int i = 0; i < 5 + 7; ++i)
      ASSERT_EQ(put_frame(recognizer, i < 5 ? packet : nullptr, sizeof packet), 1U);
  }
  // Updates until the member has a packet; null after half a minute.
  void* wait_for_text(void* recognizer) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
      session<void>(0);
      if (void* packet_ref = member<void*>(recognizer, 3); packet_ref != nullptr) return packet_ref;
      std::this_thread::yield();
    }
    return nullptr;
  }
  // Drops one reference as the host's own part of the contract has it.
  static void release(void* packet_ref) {
    const auto count = peek<std::uint32_t>(packet_ref, 20);
    poke(packet_ref, 20, count - 1);
    if (count > 1) return;
    peek<void (*)(void*, void*)>(packet_ref, 32)(peek<void*>(packet_ref, 40), packet_ref);
    void* queue = peek<void*>(packet_ref, 24);
    const auto write_index = peek<std::uint32_t>(queue, 16);
    poke(peek<void*>(queue, 0), 8 * (write_index % peek<std::uint32_t>(queue, 8)), packet_ref);
    poke(queue, 16, write_index + 1);
  }
};

TEST_F(Driven, MembersAreHeard) {
  const kit::Script hello = {kit::ReadRequest(),
                             kit::Send(kit::Reply("200 OK", R"({"result":"success","text":"hello"})"))};
  const kit::HttpServer server(hello);
  const std::string url = "http://127.0.0.1:" + std::to_string(server.port()) + "/stt";
  EXPECT_EQ(session(10, url.c_str(), static_cast<std::int32_t>(url.size())), 1U);
  EXPECT_EQ(session(9, "token", std::int32_t{5}), 1U);
  void* const members[] = {add_member(7, "alice"), add_member(8, "bob")};
  EXPECT_EQ(session<void*>(4), nullptr) << "two members at most";
  EXPECT_EQ(session(3), 1U);
  EXPECT_EQ(plugin("Session_SetLanguage", session_, "bob", 2U), 1U);
  std::uint64_t last = 0;
  // More texts than the four packets that a member has: each must come back.
  for (int round = 0; round < 6; ++round) {
    for (std::uint32_t i = 0; i < 2; ++i) {
      say(members[i]);
      void* packet_ref = wait_for_text(members[i]);
      ASSERT_NE(packet_ref, nullptr);
      ASSERT_EQ(peek<std::uint32_t>(packet_ref, 20), 1U);
      poke(packet_ref, 20, std::uint32_t{2});  // shared with another part of the host
      release(packet_ref);
      EXPECT_EQ(peek<std::uint64_t>(packet_ref, 8), 0U);
      EXPECT_EQ(peek<std::uint32_t>(packet_ref, 16), 0U);
      const auto* packet = peek<const char*>(packet_ref, 0);
      EXPECT_EQ(peek<std::uint32_t>(packet, 0), 1572U);
      EXPECT_EQ(peek<std::uint8_t>(packet, 4), 0);
      EXPECT_EQ((peek<std::array<std::uint32_t, 9>>(packet, 8)), (std::array<std::uint32_t, 9>{1024, 512, 32, 4}));
      EXPECT_STREQ(peek<const char*>(packet, 48), "hello");
      EXPECT_EQ(peek<std::uint64_t>(packet, 56), 5U);
      EXPECT_EQ(peek<std::uint64_t>(packet, 64), 7 + i);
      EXPECT_GT(peek<std::uint64_t>(packet, 72), last);
      last = peek<std::uint64_t>(packet, 72);
      release(packet_ref);
      EXPECT_EQ(member<void*>(members[i], 3), nullptr);
    }
  }
  const std::vector<std::string> requests = server.requests();
  ASSERT_EQ(requests.size(), 12U);
  EXPECT_THAT(requests[0], testing::StartsWith("POST /stt?language=ja-JP&speaker=alice HTTP/1.1\r\n"));
  EXPECT_THAT(requests[11], testing::StartsWith("POST /stt?language=zh-CN&speaker=bob HTTP/1.1\r\n"));
}

}  // namespace
