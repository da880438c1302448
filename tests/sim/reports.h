// The reports of the plug-in: checked against the table of all that there are, then given to whom they concern.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace sim {

// Accepts one report from the calling fiber. `format` of a message, or the identifier of a refusal, which comes with a
// negative code; "|" and the value stand for each argument in what is passed on: "E...:... %s error.||SSL".
void TakeMessage(std::uint32_t level, const char* format, std::initializer_list<std::uint64_t> arguments);
void TakeRefusal(std::uint32_t level, const char* identifier, std::int32_t code);

// The whole message with that identifier, or the identifier itself for a refusal. Fails the run when there is none.
std::string_view ReportText(std::string_view identifier);

// The current call into the plug-in must have made no report, or exactly these, in this order.
void ExpectReports(std::initializer_list<std::string> expected = {});

}  // namespace sim
