#include "reports.h"

#include <gtest/gtest.h>

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

std::string formatted(const char* format, std::vector<std::uint64_t> arguments, std::size_t capacity = 200) {
  std::string text(capacity, '?');
  text.resize(format_report(text, format, arguments));
  return text;
}

TEST(Reports, FormatsTheirConversionsAndSurvivesTheRest) {
  EXPECT_EQ(formatted("version %u, but %u.", {539165955, 7}), "version 539165955, but 7.");
  EXPECT_EQ(formatted("err=%lu(%s)", {12002, argument("time out")}), "err=12002(time out)");
  EXPECT_EQ(formatted("handle(0x%08x)", {0xAB}), "handle(0x000000ab)");
  EXPECT_EQ(formatted("handle(0x%08x)", {0x7FFF'0123'4567}), "handle(0x7fff01234567)");
  EXPECT_EQ(formatted("%u", {0xFFFF'FFFF'FFFF'FFFF}), "18446744073709551615");
  EXPECT_EQ(formatted("%s and %s", {0, argument("%s")}), "(null) and %s");
  EXPECT_EQ(formatted("100%% of %s", {argument("it")}), "100% of it");
  EXPECT_EQ(formatted("no argument left: %s %u", {}), "no argument left: %s %u");
  EXPECT_EQ(formatted("%d %n %-5s %5u %ld %", {1, 2}), "%d %n %-5s %5u %ld %");
  EXPECT_EQ(formatted("", {}), "");
  EXPECT_EQ(formatted(nullptr, {1}), "");
  EXPECT_EQ(formatted("cut %s", {argument("off")}, 6), "cut of");
  EXPECT_EQ(formatted("%u", {12345}, 3), "123");
}

TEST(Reports, ReachTheSinkWithLevelIdentifierAndCode) {
  std::vector<std::string> seen;
  set_report_sink([&seen](const Report& report) {
    seen.push_back(std::to_string(report.level) + "|" + std::string(report.identifier) + "|" +
                   std::to_string(report.code) + "|" + std::string(report.message));
  });
  table().err_notify(0, "E2022101104:User allocator function has not been set.");
  table().err_notify1(1, "W2022102700:Not found specified client(%s).", argument("alice"));
  table().err_notify2(0, "E2022110401:(ErrorCode:%s, ErrorMessage:%s)", argument("E1"), 0);
  table().err_notify_param(0, "E2022101106", ZEL_ERR_INVALID_PARAMETER);
  table().err_notify(1, "E20221011040:eleven digits");
  table().err_notify(0, nullptr);
  const std::string long_text = "E2022101104:" + std::string(5000, 'x');
  table().err_notify(0, long_text.c_str());
  set_report_sink({});

  const std::vector<std::string> expected = {
      "0|E2022101104|0|E2022101104:User allocator function has not been set.",
      "1|W2022102700|0|W2022102700:Not found specified client(alice).",
      "0|E2022110401|0|E2022110401:(ErrorCode:E1, ErrorMessage:(null))",
      "0|E2022101106|-2|E2022101106",
      "1||0|E20221011040:eleven digits",
      "0||0|",
      "0|E2022101104|0|" + long_text.substr(0, 1023),
  };
  EXPECT_EQ(seen, expected);
}

TEST(Reports, DefaultSinkPrintsOneLineEach) {
  testing::internal::CaptureStderr();
  table().err_notify1(1, "W2022102700:Not found specified client(%s).", argument("a\nb"));
  table().err_notify_param(0, "E2022101106", ZEL_ERR_INVALID_PARAMETER);
  const std::string long_text(3000, 'x');
  table().err_notify(0, long_text.c_str());
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "speech-to-text warning: W2022102700:Not found specified client(a?b).\n"
            "speech-to-text error: E2022101106 (code -2)\n"
            "speech-to-text error: " +
                long_text.substr(0, 1023) + "\n");
}

TEST(Reports, WatchesSeeTheirOwnThreadOnly) {
  int sink = 0, outer = 0, inner = 0;
  set_report_sink([&sink](const Report&) {
    ++sink;
    throw std::runtime_error("swallowed");
  });
  {
    const ReportWatch watch([&outer](const Report&) { ++outer; });
    {
      const ReportWatch nested([&inner](const Report&) { ++inner; });
      table().err_notify(0, "both");
      std::thread([] { table().err_notify(0, "neither"); }).join();
    }
    table().err_notify(0, "outer");
  }
  table().err_notify(0, "none");
  set_report_sink({});
  EXPECT_EQ(inner, 1);
  EXPECT_EQ(outer, 2);
  EXPECT_EQ(sink, 4);
}

TEST(Reports, SinkCanBeReplacedWhileOthersReport) {
  std::atomic<int> seen{0};
  set_report_sink([&seen](const Report&) { ++seen; });
  constexpr int kReports = 2000;
  std::thread reporter([] {
    for (int i = 0; i < kReports; ++i)
      table().err_notify(0, "E2022101104:text");
  });
  for (int i = 0; i < 200; ++i)
    set_report_sink([&seen](const Report&) { ++seen; });
  reporter.join();
  set_report_sink({});
  EXPECT_EQ(seen, kReports);
}

}  // namespace
}  // namespace zel::host
