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

TEST(Reports, ReachTheSinkWithLevelIdentifierAndCode) {
  const std::string long_text = "E2022101104:" + std::string(5000, 'x');
  const auto report_all = [&long_text] {
    const auto argument = [](const char* text) { return reinterpret_cast<std::uintptr_t>(text); };
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
