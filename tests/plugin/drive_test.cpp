// The plug-in driven as a host drives it, through byte offsets and slot numbers.
#include <gmock/gmock.h>

#include <chrono>
#include <string>
#include <thread>

#include "http_server.h"
#include "raw_host.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const kit::Script kHello = {kit::ReadRequest(),
                            kit::Send(kit::Reply("200 OK", R"({"result":"success","version":"1","text":"hello"})"))};

TEST_F(RawHost, MembersAreHeard) {
  const kit::HttpServer server(kHello);
  set_endpoint(server.port());
  void* const members[] = {add_member(7, "alice"), add_member(8, "bob")};
  EXPECT_EQ(session_call<void*>(4), nullptr) << "two members at most";
  EXPECT_EQ(session_call(3), 1U);
  EXPECT_EQ(plugin_.call<std::uint32_t>("Session_SetLanguage", session_, "bob", 2U), 1U);
  std::uint64_t last = 0;
  // More texts than the four packets that a member has: each must come back.
  for (int round = 0; round < 6; ++round) {
    for (std::uint32_t i = 0; i < 2; ++i) {
      say(members[i]);
      void* packet_ref = wait_for_text(members[i]);
      ASSERT_NE(packet_ref, nullptr);
      ASSERT_EQ(peek<std::uint32_t>(packet_ref, 20), 1U);
      poke(packet_ref, 20, std::uint32_t{2});  // shared with another part of the host
      release_text(packet_ref);
      const RawText text = read_text(packet_ref);
      EXPECT_EQ(text.text, "hello");
      EXPECT_EQ(text.member_id, 7 + i);
      EXPECT_GT(text.timestamp, last);
      last = text.timestamp;
      release_text(packet_ref);
      EXPECT_EQ(member_call<void*>(members[i], 3), nullptr);
    }
  }
  const std::vector<std::string> requests = server.requests();
  ASSERT_EQ(requests.size(), 12U);
  EXPECT_THAT(requests[0], testing::StartsWith("POST /stt?language=ja-JP&speaker=alice HTTP/1.1\r\n"));
  EXPECT_THAT(requests[11], testing::StartsWith("POST /stt?language=zh-CN&speaker=bob HTTP/1.1\r\n"));
}

TEST_F(RawHost, WrongCallsAreReportedAndHarmless) {
  const kit::HttpServer server(kHello);
  set_endpoint(server.port());
  void* member = add_member(7, "alice");
  void* const none = nullptr;
  void* const sessions = peek<void*>(session_, 8);
  void* const members = peek<void*>(member, 0);

  const struct {
    std::size_t slot;
    const char* report;
  } null_bodies[] = {{0, "0 E2022111456 -2"}, {1, "0 E2022111457 -2"}, {2, "0 E2022111458 -2"}, {3, "0 E2022111459 -2"},
                     {4, "0 E2022111460 -2"}, {5, "0 E2022111461 -2"}, {6, "0 E2022111463 -2"}, {7, "0 E2022111464 -2"},
                     {8, "0 E2022111464 -2"}, {9, "0 E2022111465 -2"}, {10, "0 E2022121223 -2"}};
  for (const auto& wrong : null_bodies) {
    SCOPED_TRACE(wrong.slot);
    if (wrong.slot == 0 || wrong.slot == 7 || wrong.slot == 8) {
      call_slot<void>(sessions, wrong.slot, none);
    } else if (wrong.slot == 4) {
      EXPECT_EQ(call_slot<void*>(sessions, wrong.slot, none), nullptr);
    } else {
      EXPECT_EQ(call_slot<std::uint32_t>(sessions, wrong.slot, none, none, std::int32_t{0}), 0U);
    }
    EXPECT_THAT(take_reports(), ElementsAre(wrong.report));
  }

  EXPECT_EQ(call_slot<std::uint32_t>(members, 0, none, 7U), 0U);
  EXPECT_EQ(call_slot<std::uint32_t>(members, 1, none, none, 0U), 0U);
  EXPECT_EQ(call_slot<std::uint32_t>(members, 2, none, none), 0U);
  EXPECT_EQ(call_slot<void*>(members, 3, none), nullptr);
  EXPECT_EQ(member_call(member, 1, static_cast<const void*>("x"), 513U), 0U);
  EXPECT_EQ(member_call(member, 2, none), 0U);
  EXPECT_THAT(take_reports(), ElementsAre("0 E2022111438 -2", "0 E2022111439 -2", "0 E2022111441 -2",
                                          "0 E2022111525 -2", "0 E2022111440 -2", "0 E2022111442 -2"));

  EXPECT_EQ(session_call(5, none), 0U);
  EXPECT_EQ(session_call(9, none, std::int32_t{1}), 0U);
  EXPECT_EQ(session_call(9, "x", std::int32_t{0}), 0U);
  EXPECT_EQ(session_call(10, none, std::int32_t{1}), 0U);
  EXPECT_EQ(session_call(10, "x", std::int32_t{-1}), 0U);
  EXPECT_THAT(take_reports(), ElementsAre("0 E2022111462 -2", "0 E2022111466 -2", "0 E2022111467 -2",
                                          "0 E2022121224 -2", "0 E2022121225 -2"));
  EXPECT_EQ(session_call(5, session_), 0U) << "not a recognizer at all";
  EXPECT_EQ(session_call(1), 0U);
  EXPECT_THAT(take_reports(), IsEmpty());

  for (const char* version : {"0.1.2", "0.1.20 ", "1.2.147-1.7"}) {
    char config[16] = {};
    poke(config, 0, version);
    EXPECT_EQ(plugin_.call<std::int32_t>("_CalculateWorkSize", static_cast<void*>(config)), -1) << version;
    EXPECT_THAT(take_reports(), ElementsAre("0 E2022101100"));
  }

  const char large[257] = {};
  EXPECT_EQ(put_frame(member, large, sizeof large), 1U);
  for (int i = 0; i < 7; ++i)
    put_frame(member, nullptr, 0);
  EXPECT_THAT(take_reports(), ElementsAre("0 E2022110200"));
  EXPECT_EQ(plugin_.call<std::uint32_t>("Session_SetLanguage", session_, "alice", 3U), 0U);
  EXPECT_EQ(plugin_.call<std::int32_t>("Session_GetLanguage", session_, "carol"), -1);
  EXPECT_EQ(plugin_.call<std::uint32_t>("Session_Destroy", none), 0U);
  EXPECT_EQ(plugin_.call<std::uint32_t>("Session_Destroy", session_), 0U) << "it is attached";
  EXPECT_THAT(take_reports(), ElementsAre("0 E2022111425 -2", "1 W2022102703", "0 E2022102104 -2", "0 E2022102623"));

  say(member);
  release_text(wait_for_text(member));
  EXPECT_EQ(session_call(5, member), 1U);
  EXPECT_EQ(session_call(5, member), 0U) << "released already";
  EXPECT_EQ(plugin_.call<std::uint32_t>("Session_IsEnabledMember", session_, "alice"), 0U);
  EXPECT_THAT(take_reports(), ElementsAre("1 W2022110822"));
}

// The audio path takes no lock, and nothing here does: what the two sides share must be shared soundly.
TEST_F(RawHost, AudioGoesOnBesideUpdates) {
  constexpr int kUtterances = 24;
  const kit::HttpServer server(kHello);
  set_endpoint(server.port());
  void* member = add_member(7, "alice");
  std::atomic<int> heard{0};
  std::thread audio([&] {
    for (int said = 0; said < kUtterances; ++said) {
      while (said - heard >= 7)  // eight may wait; the one that has just been heard is given back a little later
        std::this_thread::yield();
      say(member, 5 + said);
    }
  });
  while (heard < kUtterances) {
    void* packet_ref = wait_for_text(member);
    if (packet_ref == nullptr) break;
    EXPECT_EQ(read_text(packet_ref).text, "hello");
    release_text(packet_ref);
    ++heard;
  }
  heard = kUtterances;
  audio.join();
  EXPECT_EQ(server.requests().size(), std::size_t{kUtterances});
}

}  // namespace
