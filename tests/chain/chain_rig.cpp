#include "chain_rig.h"

#include <utility>

#include "http_server.h"
#include "reports.h"

ChainTest::ChainTest() {
  kit::UseNoProxy();
  kit::TrustTestAuthority();
  zel::host::set_report_sink([this](const zel::host::Report& report) {
    std::lock_guard hold(lock_);
    reports_.emplace_back(report.message);
  });
}

ChainTest::~ChainTest() {
  zel::host::set_report_sink({});
}

std::vector<std::string> ChainTest::take_reports() {
  std::lock_guard hold(lock_);
  return std::exchange(reports_, {});
}

std::string recognized(const std::string& text) {
  return R"({"result":"success","version":"1.0","speaker":"s","text":")" + text + "\"}";
}

std::string success(const std::string& text) {
  return kit::Reply("200 OK", recognized(text));
}
