// Runs one exchange of the table against its scripted server, and compares.
//
// Thread rule: any number of threads at once, after PrepareExchanges.
#pragma once

#include <cstdint>
#include <vector>

#include "exchange_cases.h"

#ifdef _WIN32
constexpr bool kWindows = true;
#else
constexpr bool kWindows = false;
#endif

// Installs the bridge services that the executor reports through; no proxy, and the test authority trusted.
void PrepareExchanges();

struct Execution {
  std::int32_t result;
  WreqResponse response;
  std::vector<std::uint8_t> buffer;
  std::vector<std::string> reports;  // "<level> <format>", then "|<error>|<name>" when the report has a number
  bool allocation_failed;            // as ordered
};

// What every number of the response record is before an execution.
constexpr std::uint32_t kUntouched = 77;

// Fails the test when the executor keeps anything.
Execution Execute(const ExchangeRequest& given, unsigned port);

// Whether the case runs on this system.
bool Runs(const ExchangeCase& c);
void RunCase(const ExchangeCase& c);
