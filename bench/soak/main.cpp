// zel-soak: a room full of members who talk as fast as the machine goes, a service that fails in every way, and the
// books at the end: every utterance is accounted for, and nothing has grown. Exit status 1 when that is not so.
#include <malloc.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include "hostile_service.h"
#include "library.h"
#include "reports.h"
#include "room.h"

namespace {

using namespace zel::host;
using Clock = std::chrono::steady_clock;

constexpr double kFrameSeconds = 0.04;
constexpr std::chrono::seconds kMaxWait{150};  // all time-outs of one exchange, and some more
constexpr std::uint64_t kMinExchanges = 30;    // a member, on average, in each of the two parts of a run
constexpr std::int64_t kHeapSlackKb = 4096;    // what the threads' allocator caches may differ by
constexpr std::int64_t kHeapSlackPerThreadKb = 32;

struct Options {
  double seconds = 30;
  std::uint32_t members = 64;
  std::uint64_t seed = 1;
  bool verbose = false;
};

// What the process holds of the system.
struct Resources {
  std::int64_t resident_kb = 0;
  std::int64_t heap_kb = 0;  // allocated and not freed; 0 where a sanitizer has its own allocator
  std::int64_t descriptors = 0;
  std::int64_t threads = 0;
};

Resources measure_resources() {
  malloc_trim(0);
  const auto entries_in = [](const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
  };
  std::int64_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  const struct mallinfo2 heap = mallinfo2();
  return {pages * sysconf(_SC_PAGESIZE) / 1024, static_cast<std::int64_t>((heap.uordblks + heap.hblkhd) / 1024),
          entries_in("/proc/self/fd"), entries_in("/proc/self/task")};
}

// One member: what it says, and what has been counted about it.
struct Talker {
  std::uint32_t id = 0;
  std::string client_id;
  std::uint32_t talk_left = 0;
  std::uint32_t silence_left = 0;
  std::size_t packet_size = 0;
  bool speaking = false;      // a frame of this talk has been taken
  bool was_disabled = false;  // once: its utterances cannot be foretold any more
  std::uint64_t begun = 0;    // utterances
  std::uint64_t texts = 0;    // events
  MemberLedger books;         // of stays that are over

  void begin_talk(bench::Random& random);
  void fall_silent() {
    talk_left = 0;
    silence_left = 7;
    speaking = false;
  }
};

// Most talks take up to five seconds; the others are too short, or long, or of large packets. None meets the limits at
// which one talk becomes two utterances.
void Talker::begin_talk(bench::Random& random) {
  const std::uint32_t kind = random.below(20);
  talk_left = kind == 0 ? 1200 : kind < 3 ? 1 + random.below(4) : 5 + random.below(120);
  packet_size = kind == 1 ? 256 : 10 + random.below(40);
  silence_left = 7 + random.below(20);
  speaking = false;
}

class Soak {
 public:
  explicit Soak(const Options& options);
  ~Soak() { set_report_sink({}); }
  Soak(const Soak&) = delete;
  Soak& operator=(const Soak&) = delete;

  // Result: number of breaches.
  int run();

 private:
  void talk_until(Clock::time_point end, std::uint64_t exchanges);
  bool talk(Talker& talker);
  void disturb();
  void be_quiet();
  void join(Talker& talker);
  void check(bool sound, const std::string& what);
  void check_growth(const Resources& before, const Resources& after);
  void check_member(const Talker& talker, const bench::HostileService::Answers& answers);
  void check_reports(const MemberLedger& total);
  void check_work(const MemberLedger& total);
  void print(const MemberLedger& total) const;

  const Options options_;
  std::FILE* const out_;
  bench::Random random_;
  bench::HostileService service_;
  std::array<std::atomic<std::uint64_t>, kFailureReports.size()> reports_{};
  std::atomic<std::uint64_t> time_outs_{0};  // of a machine that stood still
  const Library library_;
  Session session_;
  std::vector<Talker> talkers_;  // by id, from 1
  Room room_;
  const std::array<std::uint8_t, kMaxPacketSize> packet_{0x58};
  bool refusing_ = false;
  std::uint64_t resets_ = 0;
  double seconds_ = 0;
  int breaches_ = 0;
};

Soak::Soak(const Options& options)
    : options_(options),
      out_(bench::take_standard_output()),
      random_(options.seed),
      service_(options.seed, 5),
      session_(session_config(options.members)),
      talkers_(options.members),
      room_(session_.handle(), {.text = [this](const RoomText& text) { ++talkers_.at(text.member_id - 1).texts; },
                                .left =
                                    [this](const MemberLedger& ledger) {
                                      Talker& talker = talkers_.at(ledger.member_id - 1);
                                      check(ledger.balanced(), talker.client_id + " leaves with an unbalanced ledger");
                                      talker.books += ledger;
                                    }}) {
  set_report_sink([this](const Report& report) {
    if (report.message.find("err=12002(") != std::string_view::npos) ++time_outs_;
    const auto* known = std::find(kFailureReports.begin(), kFailureReports.end(), report.identifier);
    if (known != kFailureReports.end()) ++reports_[static_cast<std::size_t>(known - kFailureReports.begin())];
  });
  room_.set_endpoint(service_.url());
  room_.set_token("token");
  for (std::uint32_t id = 1; id <= options.members; ++id) {
    talkers_[id - 1].id = id;
    talkers_[id - 1].client_id = "member-" + std::to_string(id);
    join(talkers_[id - 1]);
  }
}

void Soak::join(Talker& talker) {
  room_.add_member(talker.id, talker.client_id);
  session_.set_enabled(talker.client_id, true);
  talker.fall_silent();
}

int Soak::run() {
  const auto start = Clock::now();
  const auto after = [&](double part) {
    return start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options_.seconds * part));
  };
  const std::uint64_t exchanges = kMinExchanges * options_.members;
  talk_until(after(0.1), exchanges);
  be_quiet();
  const Resources before = measure_resources();
  talk_until(after(1), service_.connections() + exchanges);
  be_quiet();
  check_growth(before, measure_resources());
  for (const MemberLedger& ledger : room_.ledgers())
    check(ledger.balanced() && ledger.waiting == 0, ledger.client_id + " is not balanced when all is quiet");
  room_.close();
  seconds_ = std::chrono::duration<double>(Clock::now() - start).count();

  MemberLedger total;
  const auto answers = service_.answers();
  for (const Talker& talker : talkers_) {
    const auto found = answers.find(talker.client_id);
    check_member(talker, found != answers.end() ? found->second : bench::HostileService::Answers{});
    total += talker.books;
  }
  check_reports(total);
  check_work(total);
  print(total);
  return breaches_;
}

// Longer, within bounds, when the service has not had as many exchanges since the start.
void Soak::talk_until(Clock::time_point end, std::uint64_t exchanges) {
  const auto latest = end + kMaxWait;
  const auto is_over = [&](Clock::time_point now) {
    return now >= end && (now >= latest || service_.connections() >= exchanges);
  };
  while (!is_over(Clock::now())) {
    bool taken = false;
    for (Talker& talker : talkers_)
      taken = talk(talker) || taken;
    const bool answered = room_.pump() > 0;
    disturb();
    if (!taken && !answered) std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
}

// Frames until the room takes no more, or a dozen seconds have been said. False when none was taken.
bool Soak::talk(Talker& talker) {
  for (int frame = 0; frame < 300; ++frame) {
    if (talker.talk_left == 0 && talker.silence_left == 0) talker.begin_talk(random_);
    const bool audio = talker.talk_left > 0;
    const FrameResult result = room_.feed(talker.id, std::span(packet_).first(audio ? talker.packet_size : 0));
    if (result == FrameResult::kFull || result == FrameResult::kNoSuchMember) return frame > 0;
    if (audio && result == FrameResult::kTaken && !std::exchange(talker.speaking, true)) ++talker.begun;
    --(audio ? talker.talk_left : talker.silence_left);
  }
  return true;
}

// What happens in a room now and then.
void Soak::disturb() {
  Talker& talker = talkers_[random_.below(options_.members)];
  if (random_.one_in(refusing_ ? 20 : 4000)) {
    refusing_ = !refusing_;
    room_.set_endpoint(refusing_ ? service_.refusing_url() : service_.url());
  }
  if (random_.one_in(5000)) {
    room_.reset();
    ++resets_;
    for (Talker& each : talkers_)
      each.fall_silent();
  }
  if (!room_.has_member(talker.id)) join(talker);
  if (random_.one_in(200)) session_.set_language(talker.client_id, random_.below(3));
  if (talker.id % 4 == 0 && random_.one_in(50)) {
    talker.was_disabled = true;
    session_.set_enabled(talker.client_id, random_.one_in(2));
  }
  if (random_.one_in(200)) room_.begin_leave(talker.id, std::chrono::milliseconds(random_.one_in(2) ? 0 : 1000));
}

// Nobody speaks, all that was said has been answered, and the service has closed its connections.
void Soak::be_quiet() {
  room_.set_endpoint(service_.url());
  refusing_ = false;
  std::size_t waiting = room_.waiting();
  auto progress = Clock::now();
  for (room_.pump(); room_.waiting() > 0 && Clock::now() < progress + kMaxWait; room_.pump()) {
    const std::size_t before = std::exchange(waiting, room_.waiting());
    if (waiting != before) progress = Clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  check(room_.waiting() == 0, "utterances wait for ever");
  check(service_.wait_until_idle(kMaxWait), "connections stay open for ever");
}

void Soak::check(bool sound, const std::string& what) {
  if (sound) return;
  ++breaches_;
  std::fprintf(out_, "BREACH: %s\n", what.c_str());
}

void Soak::check_growth(const Resources& before, const Resources& after) {
  const auto line = [this](const char* when, const Resources& now) {
    std::fprintf(out_, "%-14s %8lld kB resident %8lld kB of heap %5lld descriptors %5lld threads\n", when,
                 static_cast<long long>(now.resident_kb), static_cast<long long>(now.heap_kb),
                 static_cast<long long>(now.descriptors), static_cast<long long>(now.threads));
  };
  line("after warm-up", before);
  line("at the end", after);
  check(after.descriptors <= before.descriptors, "descriptors have grown");
  check(after.threads <= before.threads, "threads have grown");
  const std::int64_t slack = kHeapSlackKb + kHeapSlackPerThreadKb * before.threads;
  check(after.heap_kb <= before.heap_kb + slack, "the heap has grown");
  const bool own_allocator = before.heap_kb > 0;  // a sanitizer's keeps what was freed
  check(!own_allocator || after.resident_kb <= before.resident_kb + 2 * slack, "resident memory has grown");
}

// The ledger against what was said, what the service answered, and what was heard.
void Soak::check_member(const Talker& talker, const bench::HostileService::Answers& answers) {
  const MemberLedger& books = talker.books;
  const std::uint64_t texts = books.delivered - books.empty;
  // A member leaves, or a reset comes, under the answer; or the answer comes too late.
  const std::uint64_t missed = books.lost - books.unfinished + time_outs_;
  const auto matches = [&](std::uint64_t arrived, std::uint64_t sent) {
    return arrived <= sent && sent <= arrived + missed;
  };
  check(books.balanced() && books.waiting == 0, talker.client_id + ": not balanced");
  check(talker.was_disabled || (books.ended == talker.begun && books.dropped == books.too_short),
        talker.client_id + ": not every utterance that was begun has ended");
  check(texts == talker.texts, talker.client_id + ": texts delivered and events differ");
  check(matches(texts, answers.texts), talker.client_id + ": a text that the service sent is missing, or one too many");
  check(matches(books.empty, answers.empty_texts), talker.client_id + ": empty texts do not match");
  check(answers.failures <= books.failed + books.lost, talker.client_id + ": a failure was taken for an answer");
  if (!options_.verbose) return;
  std::fprintf(out_, "%s:", talker.client_id.c_str());
  for (const auto& [name, count] : kLedgerCounts)
    std::fprintf(out_, " %s=%llu", name, static_cast<unsigned long long>(books.*count));
  std::fprintf(out_, "\n");
}

// Every failure in the books has its report, and every report its failure or an utterance that was lost.
void Soak::check_reports(const MemberLedger& total) {
  std::uint64_t unmatched = 0;
  for (std::size_t i = 0; i < reports_.size(); ++i) {
    check(total.failures[i] <= reports_[i], std::string(kFailureReports[i]) + ": more failures than reports");
    unmatched += reports_[i] - total.failures[i];
  }
  check(unmatched <= total.lost, "more reports than failures and losses");
}

// Books in which nothing has happened balance, too.
void Soak::check_work(const MemberLedger& total) {
  check(service_.connections() > 0, "the service has seen no request");
  check(total.delivered > total.empty, "no text has been delivered");
  check(total.failed > 0, "no exchange has failed");
}

void Soak::print(const MemberLedger& total) const {
  for (const auto& [name, count] : kLedgerCounts)
    std::fprintf(out_, "%-16s %12llu\n", name, static_cast<unsigned long long>(total.*count));
  for (std::size_t i = 0; i < reports_.size(); ++i) {
    if (total.failures[i] == 0) continue;
    std::fprintf(out_, "  %-14s %12llu\n", std::string(kFailureReports[i]).c_str(),
                 static_cast<unsigned long long>(total.failures[i]));
  }
  const double audio = static_cast<double>(total.frames) * kFrameSeconds;
  std::fprintf(out_,
               "%u members, seed %llu: %.2f days of audio in %.1f s, %.0f exchanges/s, %llu connections, %llu resets\n",
               options_.members, static_cast<unsigned long long>(options_.seed), audio / 86'400, seconds_,
               static_cast<double>(total.posted) / seconds_, static_cast<unsigned long long>(service_.connections()),
               static_cast<unsigned long long>(resets_));
  std::fprintf(out_, breaches_ == 0 ? "every utterance is accounted for\n" : "%d breaches\n", breaches_);
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app("Days of a voice room against a failing service, and the books at the end.", "zel-soak");
  Options options;
  app.add_option("--seconds", options.seconds, "how long; default: 30")->check(CLI::PositiveNumber);
  app.add_option("--members", options.members, "1 to 256; default: 64")->check(CLI::Range(1, 256));
  app.add_option("--seed", options.seed, "of audio, disturbances and failures; default: 1");
  app.add_flag("-v,--verbose", options.verbose, "every member's ledger");
  CLI11_PARSE(app, argc, argv);
  bench::use_no_proxy();
  return Soak(options).run() == 0 ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "zel-soak: %s\n", error.what());
  return 1;
}
