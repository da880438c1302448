// zel-races: eight rooms in which everything happens at the same time, against a service that fails at random. The host
// holds no lock but those that zel_rtc_speech_to_text_host.h asks for. Meant for a build with ThreadSanitizer, whose
// reports end it with another status. Exit status 1 when mutexes are locked in a circle or on the audio path, when the
// plug-in complains about its host, or when nothing has happened; a stuck thread ends it with all stacks.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "hostile_service.h"
#include "ledger.h"
#include "library.h"
#include "lock_order.h"
#include "random.h"
#include "reports.h"
#include "text_packet.h"
#include "watchdog.h"

namespace {

using bench::HostileService;
using bench::Pulse;
using bench::Random;
using bench::Watchdog;
using zel::host::TextPacket;
using Clock = std::chrono::steady_clock;
using Counter = std::atomic<std::uint64_t>;

constexpr std::uint32_t kRooms = 8;
constexpr std::uint32_t kMembers = 16;
constexpr std::chrono::minutes kMaxOvertime{5};  // for a machine so slow that nothing has happened yet

// What the rooms share, and what all of them have done.
struct World {
  explicit World(std::uint64_t seed) : service(seed, 20) {}

  HostileService service;
  Watchdog watchdog;
  std::mutex creation;  // sessions are created and destroyed one at a time
  Counter sessions{0}, members{0}, frames{0}, updates{0}, texts{0}, failures{0}, resets{0}, wishes{0};

  bool has_worked() const { return texts > 0 && failures > 0; }
};

// One session and everything that may happen to it. Everything but run belongs to the stage's own threads.
class Stage {
 public:
  Stage(World& world, std::string name, std::uint64_t seed);
  ~Stage();
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  // `steps` joins, leaves and the like on the calling thread, beside all other threads; then the end of everything.
  void run(std::uint32_t steps);

 private:
  // A member's place. Locks are taken in the order drive_, talk, pop.
  struct Seat {
    std::mutex talk;                       // held while a frame is put; a reset and a release hold it, too
    std::mutex pop;                        // held while a packet is popped; a release holds it, too
    SttRecognizerHn recognizer = nullptr;  // changed under all three
  };

  void drive(Random& random);
  void talk(std::uint32_t first, std::uint32_t last, Random& random);
  void pop(Random& random);
  void wish(Random& random);
  void show(TextPacket packet);
  void step();
  void join_or_leave(Seat& seat, std::uint32_t id);
  void reset_or_release_all(bool release);

  World& world_;
  const std::string name_;
  Random random_;
  std::unique_ptr<zel::host::Session> session_;
  const SttSessionInterface* api_ = nullptr;
  SttSessionBody* body_ = nullptr;
  std::mutex drive_;              // held around Update, slots 4 to 8 and the release of packets
  std::shared_mutex client_ids_;  // the application reads them, a joining member writes its own
  std::array<Seat, kMembers> seats_;
  std::vector<TextPacket> shown_;  // packets that the host keeps for a while; under drive_
  std::atomic<bool> ended_{false};
};

void breathe() {
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

std::string client_id(std::uint32_t id) {
  return "member-" + std::to_string(id);
}

// Reads what the packet holds, as a host does that shows it.
std::size_t read(const TextPacket& packet) {
  return packet.text().size() + packet.member_id() + packet.timestamp_us();
}

Stage::Stage(World& world, std::string name, std::uint64_t seed)
    : world_(world), name_(std::move(name)), random_(seed) {
  std::lock_guard hold(world_.creation);
  session_ = std::make_unique<zel::host::Session>(zel::host::session_config(kMembers));
  api_ = session_->handle()->interface_table;
  body_ = session_->handle()->body;
}

Stage::~Stage() {
  std::lock_guard hold(world_.creation);
  session_.reset();
}

void Stage::run(std::uint32_t steps) {
  api_->Attach(body_);
  std::vector<std::thread> threads;
  const auto start = [&](const char* role, auto operation) {
    threads.emplace_back([this, role, operation, random = Random(random_.below(1U << 31))]() mutable {
      Pulse pulse(world_.watchdog, name_ + ", " + role);
      for (; !ended_; pulse.beat())
        operation(random);
    });
  };
  start("update", [this](Random& random) { drive(random); });
  start("audio 1", [this](Random& random) { talk(0, kMembers / 2, random); });
  start("audio 2", [this](Random& random) { talk(kMembers / 2, kMembers, random); });
  start("texts", [this](Random& random) { pop(random); });
  start("application 1", [this](Random& random) { wish(random); });
  start("application 2", [this](Random& random) { wish(random); });
  {
    Pulse pulse(world_.watchdog, name_ + ", members");
    for (std::uint32_t i = 0; i < steps; ++i, pulse.beat())
      step();
  }
  ended_ = true;
  for (std::thread& thread : threads)
    thread.join();
  shown_.clear();
  if (random_.one_in(2)) api_->ReleaseAllRecognizers(body_);  // or they go with the session
  api_->Detach(body_);
  ++world_.sessions;
}

// One update, and the texts of some members.
void Stage::drive(Random& random) {
  {
    std::lock_guard hold(drive_);
    api_->Update(body_);
    ++world_.updates;
    for (Seat& seat : seats_) {
      if (seat.recognizer == nullptr || random.one_in(3)) continue;
      std::lock_guard pop(seat.pop);
      show(TextPacket(seat.recognizer->interface_table->PopTextPacket(seat.recognizer->instance)));
    }
    if (random.one_in(8)) shown_.clear();
  }
  breathe();
}

// Under drive_.
void Stage::show(TextPacket packet) {
  if (!packet) return;
  ++world_.texts;
  if (read(packet) > 0) shown_.push_back(std::move(packet));
}

void Stage::pop(Random& random) {
  Seat& seat = seats_[random.below(kMembers)];
  TextPacket packet;
  {
    std::lock_guard hold(seat.pop);
    if (seat.recognizer != nullptr) {
      packet = TextPacket(seat.recognizer->interface_table->PopTextPacket(seat.recognizer->instance));
    }
  }
  if (!packet) return breathe();
  read(packet);  // beside everything else
  std::lock_guard hold(drive_);
  show(std::move(packet));
}

// A burst of each member's voice, more often than not with the pause behind it.
void Stage::talk(std::uint32_t first, std::uint32_t last, Random& random) {
  static constexpr std::array<std::uint8_t, 300> kPacket{0x58};
  for (std::uint32_t i = first; i < last; ++i) {
    Seat& seat = seats_[i];
    std::lock_guard hold(seat.talk);
    if (seat.recognizer == nullptr) continue;
    const std::uint32_t audio = random.below(16);
    const std::uint32_t frames = audio + (random.one_in(3) ? random.below(7) : 7);
    const SttAudioFrame spoken{kPacket.data(), random.one_in(200) ? 300 : 1 + random.below(256)};
    const SttAudioFrame silent{nullptr, 0};
    const bench::NoLocks audio_path;
    for (std::uint32_t n = 0; n < frames; ++n)
      seat.recognizer->interface_table->PutAudioFrame(seat.recognizer->instance, n < audio ? &spoken : &silent);
    world_.frames += frames;
  }
  breathe();
}

// What an application asks for, of members and strangers.
void Stage::wish(Random& random) {
  const std::string id = client_id(random.below(kMembers + 1));
  {
    std::shared_lock hold(client_ids_);
    ZelRtcSpeechToTextSessionHn session = session_->handle();
    switch (random.below(4)) {
      case 0:
        zelRtcSpeechToTextSession_EnableMember(session, id.c_str(), random.one_in(4) ? 0 : 1);
        break;
      case 1:
        zelRtcSpeechToTextSession_IsEnabledMember(session, id.c_str());
        break;
      case 2:
        zelRtcSpeechToTextSession_SetLanguage(session, id.c_str(), random.below(3));
        break;
      default:
        zelRtcSpeechToTextSession_GetLanguage(session, id.c_str());
    }
  }
  ++world_.wishes;
  breathe();
}

// What happens to the room and its members.
void Stage::step() {
  const std::uint32_t kind = random_.below(24);
  if (kind == 0) {
    const std::string token(1 + random_.below(504), 't');
    api_->SetAccessToken(body_, token.c_str(), static_cast<std::int32_t>(token.size()));
  } else if (kind == 1) {
    const std::string url = random_.one_in(4) ? world_.service.refusing_url() : world_.service.url();
    api_->SetEndpointUrl(body_, url.c_str(), static_cast<std::int32_t>(url.size()));
  } else if (kind == 2) {
    reset_or_release_all(random_.one_in(4));
  } else {
    const std::uint32_t id = random_.below(kMembers);
    join_or_leave(seats_[id], id);
  }
  if (api_->IsAttached(body_) == 0) std::abort();
  breathe();
}

void Stage::join_or_leave(Seat& seat, std::uint32_t id) {
  std::lock_guard drive(drive_);
  if (seat.recognizer != nullptr) {
    if (!random_.one_in(3)) return;  // stays
    std::scoped_lock hold(seat.talk, seat.pop);
    api_->ReleaseRecognizer(body_, std::exchange(seat.recognizer, nullptr));
    return;
  }
  SttRecognizerHn recognizer = api_->AcquireRecognizer(body_);
  if (recognizer == nullptr) std::abort();
  const std::string name = client_id(id);
  {
    std::unique_lock hold(client_ids_);
    recognizer->interface_table->SetMemberId(recognizer->instance, id);
    recognizer->interface_table->SetClientId(recognizer->instance, reinterpret_cast<const std::uint8_t*>(name.c_str()),
                                             static_cast<std::uint32_t>(name.size() + 1));
  }
  std::scoped_lock hold(seat.talk, seat.pop);
  seat.recognizer = recognizer;
  ++world_.members;
}

void Stage::reset_or_release_all(bool release) {
  std::lock_guard drive(drive_);
  std::vector<std::unique_lock<std::mutex>> locks;
  for (Seat& seat : seats_) {
    locks.emplace_back(seat.talk);
    if (release) locks.emplace_back(seat.pop);
  }
  ++world_.resets;
  if (!release) return random_.one_in(2) ? api_->ResetRecognizersA(body_) : api_->ResetRecognizersB(body_);
  api_->ReleaseAllRecognizers(body_);
  for (Seat& seat : seats_)
    seat.recognizer = nullptr;
}

// One session after another.
void keep_open(World& world, std::uint32_t number, std::uint64_t seed, Clock::time_point end) {
  Random random(seed * kRooms + number);
  const auto goes_on = [&] {
    const auto now = Clock::now();
    return now < end || (!world.has_worked() && now < end + kMaxOvertime);
  };
  while (goes_on())
    Stage(world, "room " + std::to_string(number), random.below(1U << 31)).run(50 + random.below(500));
}

// The utterance gets no text.
bool tells_of_failure(const zel::host::Report& report) {
  const auto& known = zel::host::kFailureReports;
  return std::find(known.begin(), known.end(), report.identifier) != known.end();
}

// Reports that say that the host broke a rule.
bool blames_host(const zel::host::Report& report) {
  return report.code != 0 || report.identifier == "E2021100512" || report.identifier == "E2022102623";
}

}  // namespace

int main(int argc, char** argv) try {
  double seconds = 20;
  std::uint64_t seed = 1;
  CLI::App app("Everything at the same time, in eight rooms.", "zel-races");
  app.add_option("--seconds", seconds, "how long; default: 20")->check(CLI::PositiveNumber);
  app.add_option("--seed", seed, "of everything but the threads' timing; default: 1");
  CLI11_PARSE(app, argc, argv);

  std::FILE* const out = bench::take_standard_output();
  bench::use_no_proxy();
  Counter blames{0}, reports{0};
  World world(seed);
  zel::host::set_report_sink([&](const zel::host::Report& report) {
    ++reports;
    if (tells_of_failure(report)) ++world.failures;
    if (!blames_host(report)) return;
    ++blames;
    std::fprintf(stderr, "BREACH: %.*s\n", static_cast<int>(report.message.size()), report.message.data());
  });
  {
    const zel::host::Library library;
    zelRtcSpeechToText_SetBaseRtcBridgeInterface(&bench::watched_bridge());
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    std::vector<std::thread> rooms;
    for (std::uint32_t number = 0; number < kRooms; ++number)
      rooms.emplace_back([&world, number, seed, end] { keep_open(world, number, seed, end); });
    for (std::thread& room : rooms)
      room.join();
  }
  zel::host::set_report_sink({});
  const bench::LockCounts locks = bench::lock_counts();
  const std::pair<const char*, std::uint64_t> figures[] = {{"sessions", world.sessions},
                                                           {"members", world.members},
                                                           {"frames", world.frames},
                                                           {"updates", world.updates},
                                                           {"exchanges", world.service.connections()},
                                                           {"texts", world.texts},
                                                           {"failures", world.failures},
                                                           {"resets", world.resets},
                                                           {"application's calls", world.wishes},
                                                           {"reports", reports},
                                                           {"lock orders", locks.orders},
                                                           {"breaches", locks.breaches + blames}};
  for (const auto& [name, figure] : figures)
    std::fprintf(out, "%-20s %10llu\n", name, static_cast<unsigned long long>(figure));
  if (!world.has_worked()) std::fprintf(out, "BREACH: no text, or no failure\n");
  return locks.breaches + blames == 0 && world.has_worked() ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "zel-races: %s\n", error.what());
  return 1;
}
