#include "reports.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bridge_services.h"

namespace zel::host {
namespace {

const BridgeTable& table() {
  return *bridge_interface().table;
}

std::uint64_t argument(const char* text) {
  return reinterpret_cast<std::uintptr_t>(text);
}

TEST(Reports, FormatsTheirConversionsAndSurvivesTheRest) {
  const struct {
    const char* format;
    std::vector<std::uint64_t> arguments;
    const char* expected;
    std::size_t capacity = 200;
  } cases[] = {
      {"version %u, but %u.", {539165955, 7}, "version 539165955, but 7."},
      {"err=%lu(%s)", {12002, argument("time out")}, "err=12002(time out)"},
      {"handle(0x%08x, 0x%08x)", {0xAB, 0x7FFF'0123'4567}, "handle(0x000000ab, 0x7fff01234567)"},
      {"%u", {0xFFFF'FFFF'FFFF'FFFF}, "18446744073709551615"},
      {"%s and %s", {0, argument("%s")}, "(null) and %s"},
      {"100%% of %s", {argument("it")}, "100% of it"},
      {"no argument left: %s %u", {}, "no argument left: %s %u"},
      {"%d %n %-5s %5u %ld %", {1, 2}, "%d %n %-5s %5u %ld %"},
      {nullptr, {1}, ""},
      {"cut %s", {argument("off")}, "cut of", 6},
      {"%u", {12345}, "123", 3},
  };
  for (const auto& c : cases) {
    std::string text(c.capacity, '?');
    text.resize(format_report(text, c.format, c.arguments));
    EXPECT_EQ(text, c.expected);
  }
}

TEST(Reports, ReachTheSinkWithLevelIdentifierAndCode) {
  const std::string long_text = "E2022101104:" + std::string(5000, 'x');
  const auto report_all = [&long_text] {
    table().err_notify(0, long_text.c_str());
    table().err_notify1(1, "W2022102700:Not found specified client(%s).", argument("a\nb"));
    table().err_notify2(0, "E2022110401:(ErrorCode:%s, ErrorMessage:%s)", argument("E1"), 0);
    table().err_notify_param(0, "E2022101106", ZEL_ERR_INVALID_PARAMETER);
    table().err_notify(1, "E20221011040:eleven digits");
    table().err_notify(0, nullptr);
  };
  std::vector<std::string> seen;
  set_report_sink([&seen](const Report& report) {
    seen.push_back(std::to_string(report.level) + "|" + std::string(report.identifier) + "|" +
                   std::to_string(report.code) + "|" + std::string(report.message));
  });
  report_all();
  set_report_sink({});
  EXPECT_THAT(seen, testing::ElementsAre("0|E2022101104|0|" + long_text.substr(0, 1023),
                                         "1|W2022102700|0|W2022102700:Not found specified client(a\nb).",
                                         "0|E2022110401|0|E2022110401:(ErrorCode:E1, ErrorMessage:(null))",
                                         "0|E2022101106|-2|E2022101106", "1||0|E20221011040:eleven digits", "0||0|"));

  testing::internal::CaptureStderr();
  report_all();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "speech-to-text error: " + long_text.substr(0, 1023) +
                "\nspeech-to-text warning: W2022102700:Not found specified client(a?b).\n"
                "speech-to-text error: E2022110401:(ErrorCode:E1, ErrorMessage:(null))\n"
                "speech-to-text error: E2022101106 (code -2)\n"
                "speech-to-text warning: E20221011040:eleven digits\n"
                "speech-to-text error: \n");
}

TEST(Reports, WatchesSeeTheirOwnThreadOnly) {
  std::atomic<int> sink{0};
  int outer = 0, inner = 0;
  const auto count = [&sink](const Report&) {
    ++sink;
    throw std::runtime_error("swallowed");
  };
  set_report_sink(count);
  {
    const ReportWatch watch([&outer](const Report&) { ++outer; });
    {
      const ReportWatch nested([&inner](const Report&) { ++inner; });
      table().err_notify(0, "both");
      std::thread other([] {
        for (int i = 0; i < 2000; ++i)
          table().err_notify(0, "neither");
      });
      for (int i = 0; i < 200; ++i)
        set_report_sink(count);  // while others report
      other.join();
    }
    table().err_notify(0, "outer");
  }
  table().err_notify(0, "none");
  set_report_sink({});
  EXPECT_EQ(inner, 1);
  EXPECT_EQ(outer, 2);
  EXPECT_EQ(sink, 2003);
}

}  // namespace
}  // namespace zel::host
