#include "exchange.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "reports.h"
#include "world.h"

namespace sim {

namespace {

// The report of each step.
constexpr const char* kReports[kSteps] = {"E2021060610", "E2021060612", "E2021060613", "W2021060603", "E2021060615",
                                          "E2021060616", "E2021060617", "E2021060621", "E2021060622", "E2021060623",
                                          "E2021060624", "E2021060625", "E2021060626"};

constexpr Error kErrors[] = {
    {8, "ERROR_NOT_ENOUGH_MEMORY", "internal"},
    {87, "ERROR_INVALID_PARAMETER", "internal"},
    {12002, "ERROR_WINHTTP_TIMEOUT", "connection"},
    {12004, "ERROR_WINHTTP_INTERNAL_ERROR", "internal"},
    {12005, "ERROR_WINHTTP_INVALID_URL", "internal"},
    {12006, "ERROR_WINHTTP_UNRECOGNIZED_SCHEME", "internal"},
    {12007, "ERROR_WINHTTP_NAME_NOT_RESOLVED", "DNS"},
    {12012, "ERROR_WINHTTP_SHUTDOWN", "internal"},
    {12015, "ERROR_WINHTTP_LOGIN_FAILURE", "internal"},
    {12017, "ERROR_WINHTTP_OPERATION_CANCELLED", "unknown"},
    {12018, "ERROR_WINHTTP_INCORRECT_HANDLE_TYPE", "internal"},
    {12019, "ERROR_WINHTTP_INCORRECT_HANDLE_STATE", "internal"},
    {12029, "ERROR_WINHTTP_CANNOT_CONNECT", "connection"},
    {12030, "ERROR_WINHTTP_CONNECTION_ERROR", "internal"},
    {12032, "ERROR_WINHTTP_RESEND_REQUEST", "internal"},
    {12037, "unknown", "SSL"},
    {12038, "unknown", "SSL"},
    {12044, "ERROR_WINHTTP_CLIENT_AUTH_CERT_NEEDED", "SSL"},
    {12045, "unknown", "SSL"},
    {12057, "unknown", "SSL"},
    {12150, "ERROR_WINHTTP_HEADER_NOT_FOUND", "internal"},
    {12152, "ERROR_WINHTTP_INVALID_SERVER_RESPONSE", "internal"},
    {12156, "ERROR_WINHTTP_REDIRECT_FAILED", "internal"},
    {12157, "unknown", "SSL"},
    {12169, "unknown", "SSL"},
    {12170, "unknown", "SSL"},
    {12175, "ERROR_WINHTTP_SECURE_FAILURE", "SSL"},
    {12179, "unknown", "SSL"},
    {12181, "ERROR_WINHTTP_HEADER_COUNT_EXCEEDED", "internal"},
    {12182, "ERROR_WINHTTP_HEADER_SIZE_OVERFLOW", "internal"},
    {12183, "ERROR_WINHTTP_CHUNKED_ENCODING_HEADER_SIZE_OVERFLOW", "internal"},
    {12184, "ERROR_WINHTTP_RESPONSE_DRAIN_OVERFLOW", "internal"},
    {12185, "unknown", "SSL"},
    {12186, "unknown", "SSL"},
    {4711, "unknown", "internal"},
};
const Error& ErrorOf(DWORD number) {
  return *std::ranges::find(kErrors, number, &Error::number);
}

std::map<const Seat*, Exchange> g_exchanges;

}  // namespace

Exchange& Current() {
  Caller& me = Me();
  SIM_CHECK(me.role == Role::kWorker, "the web is used by a thread of the host");
  const auto [at, begins] = g_exchanges.try_emplace(me.seat);
  Exchange& exchange = at->second;
  if (!begins) return exchange;
  Random& random = TheWorld().random;
  const Knobs& knobs = TheWorld().knobs;
  exchange.utterance = &me.seat->Posted();
  SIM_CHECK(exchange.utterance->started && exchange.utterance->fate == Fate::kOpen,
            "an exchange that nobody asked for");
  exchange.reply = MakeReply(random, !random.OneIn(knobs.odd_reply_one_in), ++TheWorld().exchanges);
  if (random.OneIn(knobs.web_fail_one_in)) {
    exchange.fails_at = static_cast<int>(random.Below(kSteps));
    exchange.error = &random.Pick(kErrors);
  }
  return exchange;
}

void Settle(Exchange& exchange, Fate fate, std::string report, std::string text) {
  exchange.settled = true;
  exchange.utterance->fate = fate;
  exchange.utterance->owed_report = std::move(report);
  exchange.utterance->text = std::move(text);
}

void SettleFailed(Exchange& exchange) {
  Settle(exchange, Fate::kFailed, std::string(ReportText("E2022110402")) + "|" + exchange.word);
}

BOOL FailWith(Exchange& exchange, Step step, const char* report, DWORD number) {
  const Error& error = ErrorOf(number);
  exchange.last_error = number;
  exchange.word = error.word;
  exchange.due = std::string(ReportText(report)) + "|" + std::to_string(number) + "|" + error.name;
  if (step != kTimeouts) SettleFailed(exchange);
  return FALSE;
}

BOOL Allow(Exchange& exchange, Step step, const char* report) {
  World& world = TheWorld();
  world.scheduler.Point();
  SIM_CHECK(exchange.due.empty() && !exchange.starved, "a failure was passed over: %s", exchange.due.c_str());
  SIM_CHECK(!exchange.settled, "the exchange goes on after its end");
  if (report == nullptr) report = kReports[step];
  if (step >= kSend && step != kProbe && step != kStatus) {
    constexpr Micros kTimeout = 20 * kSecond;
    const bool slow = OneIn(world.knobs.slow_one_in);
    const Micros wait = slow ? Below(kTimeout + 2 * kSecond) : Below(400 * kMillisecond);
    world.scheduler.Sleep(std::min(wait, kTimeout));
    if (wait > kTimeout) return FailWith(exchange, step, report, ERROR_WINHTTP_TIMEOUT);
  }
  if (exchange.fails_at != step) return TRUE;
  exchange.fails_at = -1;
  return FailWith(exchange, step, report, exchange.error->number);
}

void WebReport(const std::string& text) {
  Exchange& exchange = Current();
  if (exchange.starved) {
    constexpr std::string_view kStarved[] = {"E2021060609", "E2021060610", "E2021060617"};
    const bool known = std::ranges::find(kStarved, text.substr(0, 11)) != std::end(kStarved);
    const bool plain = text.starts_with(kStarved[0]);
    SIM_CHECK(known && (plain || text.ends_with("|8|ERROR_NOT_ENOUGH_MEMORY")), "out of memory, and: %s", text.c_str());
    exchange.starved = false;
    if (!plain) exchange.word = "internal";
    return SettleFailed(exchange);
  }
  SIM_CHECK(text == exchange.due, "an exchange reports \"%s\" instead of \"%s\"", text.c_str(), exchange.due.c_str());
  exchange.due.clear();
}

void WebExchangeOver(const Seat& seat) {
  const auto at = g_exchanges.find(&seat);
  if (at == g_exchanges.end()) return;
  const Exchange& exchange = at->second;
  SIM_CHECK(exchange.blocks == 0, "%d heap blocks left", exchange.blocks);
  SIM_CHECK(std::ranges::count(exchange.open, true) == 0, "handles left open");
  SIM_CHECK(exchange.due.empty() && !exchange.starved, "a failure was not reported: %s", exchange.due.c_str());
  SIM_CHECK(exchange.settled, "an exchange without an end");
  g_exchanges.erase(at);
}

}  // namespace sim

// ---- The heap: the executor's alone

extern "C" {

void* __real_malloc(std::size_t size);
void __real_free(void* block);

void* __wrap_malloc(std::size_t size) {
  SIM_CHECK(sim::Me().role == sim::Role::kWorker, "memory is allocated outside an exchange");
  sim::Exchange& exchange = sim::Current();
  if (sim::OneIn(sim::TheWorld().knobs.no_memory_one_in)) {
    exchange.starved = true;
    return nullptr;
  }
  ++exchange.blocks;
  void* block = __real_malloc(size);
  std::memset(block, 0xEE, size);
  return block;
}

void __wrap_free(void* block) {
  if (block != nullptr) --sim::Current().blocks;
  __real_free(block);
}

void* __wrap_calloc(std::size_t, std::size_t) {
  sim::Fail("memory is allocated outside an exchange");
}
void* __wrap_realloc(void*, std::size_t) {
  sim::Fail("memory is allocated outside an exchange");
}
}
