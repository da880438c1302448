#include "transcriber.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <thread>
#include <utility>

#include "captions.h"
#include "embedded_service.h"
#include "failure_log.h"
#include "library.h"
#include "member_feed.h"
#include "room.h"

namespace zel::transcribe {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::hours kNoDeadline{24 * 365};  // of a leaving member; the patience below decides
constexpr std::chrono::seconds kPatience{120};       // without any answer, after the audio is over
constexpr std::chrono::milliseconds kShortWait{2};   // for a service that is to be kept busy
constexpr std::chrono::milliseconds kLiveWait{10};   // for audio that comes at its own pace
constexpr int kFailure = 1;

volatile std::sig_atomic_t interrupted = 0;

void interrupt(int) {
  interrupted = 1;
}

void watch_signals() {
  struct sigaction action {};
  action.sa_handler = interrupt;
  action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);  // writing fails instead
}

class Transcriber {
 public:
  Transcriber(const Options& options, std::vector<std::unique_ptr<AudioSource>> sources, host::Session& session);

  void set_service(const std::string& endpoint, const std::string& token);
  void run();
  Summary summary() const;

 private:
  struct Member {
    std::unique_ptr<MemberFeed> feed;
    host::MemberLedger ledger;  // as last seen; final once the member is gone
    bool leaving = false;
    bool gone = false;
  };

  Member& member(std::uint32_t id) { return members_.at(id - 1); }
  bool all(bool Member::*state) const;
  void stop_if_interrupted();
  bool may_read(const MemberFeed& feed) const;
  bool feed_members();
  void write(const host::RoomText& text);
  void look_at(Member& member);
  void give_up_if_stuck();
  std::chrono::milliseconds pause() const;
  double audio_seconds() const;

  bool realtime_;
  std::vector<Member> members_;  // by id, from 1
  CaptionWriter captions_;
  host::Room room_;
  Clock::time_point start_ = Clock::now();
  Clock::time_point progress_ = start_;  // the last answer
};

Transcriber::Transcriber(const Options& options, std::vector<std::unique_ptr<AudioSource>> sources,
                         host::Session& session)
    : realtime_(options.realtime),
      members_(options.members.size()),
      captions_(options.format),
      room_(session.handle(), {.text = [this](const host::RoomText& text) { write(text); },
                               .left =
                                   [this](const host::MemberLedger& ledger) {
                                     member(ledger.member_id).ledger = ledger;
                                     member(ledger.member_id).gone = true;
                                     progress_ = Clock::now();
                                   }}) {
  for (std::uint32_t i = 0; i < members_.size(); ++i) {
    const MemberOptions& who = options.members[i];
    members_[i].feed = std::make_unique<MemberFeed>(i + 1, who, std::move(sources[i]), options.bitrate);
    room_.add_member(i + 1, who.client_id);
    session.set_language(who.client_id, who.language);
  }
}

void Transcriber::set_service(const std::string& endpoint, const std::string& token) {
  room_.set_endpoint(endpoint);
  if (!token.empty()) room_.set_token(token);
}

void Transcriber::run() {
  start_ = progress_ = Clock::now();
  while (!all(&Member::gone)) {
    stop_if_interrupted();
    const bool worked = feed_members();
    room_.pump();
    for (Member& each : members_)
      look_at(each);
    captions_.show_progress(audio_seconds(), room_.waiting());
    give_up_if_stuck();
    if (!worked) std::this_thread::sleep_for(pause());
  }
  captions_.hide_progress();
}

bool Transcriber::all(bool Member::*state) const {
  return std::all_of(members_.begin(), members_.end(), [&](const Member& each) { return each.*state; });
}

void Transcriber::stop_if_interrupted() {
  if (interrupted == 0) return;
  for (Member& each : members_)
    each.feed->stop();
}

// In real time a file gives one frame every 40 ms, and catches up after it was held back.
bool Transcriber::may_read(const MemberFeed& feed) const {
  if (!realtime_ || feed.live()) return true;
  return Clock::now() - start_ >= host::kFrameDuration * feed.frames_read();
}

// One step of every member who is not leaving. False when none of them could do anything.
bool Transcriber::feed_members() {
  bool worked = false;
  for (Member& each : members_) {
    if (each.leaving) continue;
    const MemberFeed::Step step = each.feed->step(room_, may_read(*each.feed));
    worked = worked || step == MemberFeed::Step::kWorked;
    if (step != MemberFeed::Step::kOver) continue;
    room_.begin_leave(each.feed->id(), kNoDeadline);
    each.leaving = true;
    progress_ = Clock::now();
  }
  return worked;
}

void Transcriber::write(const host::RoomText& text) {
  MemberFeed& feed = *member(text.member_id).feed;
  if (captions_.write({text, feed.language(), feed.take_stretch(text.utterance)})) return;
  if (errno != EPIPE) std::fprintf(stderr, "zel-transcribe: cannot write: %s\n", std::strerror(errno));
  // Nobody hears the rest; an exchange in flight would hold an orderly end up for seconds.
  std::_Exit(kFailure);
}

void Transcriber::look_at(Member& member) {
  if (member.gone) return;
  const std::uint64_t posted = std::exchange(member.ledger, room_.ledger(member.feed->id())).posted;
  if (member.ledger.posted != posted) progress_ = Clock::now();
}

void Transcriber::give_up_if_stuck() {
  if (!all(&Member::leaving) || Clock::now() - progress_ < kPatience) return;
  for (const Member& each : members_) {
    if (!each.gone) room_.begin_leave(each.feed->id(), std::chrono::milliseconds{0});
  }
}

std::chrono::milliseconds Transcriber::pause() const {
  const bool paced = realtime_ || std::any_of(members_.begin(), members_.end(),
                                              [](const Member& each) { return !each.leaving && each.feed->live(); });
  return paced ? kLiveWait : kShortWait;
}

double Transcriber::audio_seconds() const {
  std::uint64_t frames = 0;
  for (const Member& each : members_)
    frames += each.feed->frames_read();
  return static_cast<double>(frames) * kFrameSeconds;
}

Summary Transcriber::summary() const {
  Summary summary;
  for (const Member& each : members_) {
    const double seconds = static_cast<double>(each.feed->frames_read()) * kFrameSeconds;
    summary.members.push_back({each.ledger, seconds, each.feed->error()});
  }
  summary.wall_seconds = std::chrono::duration<double>(Clock::now() - start_).count();
  summary.interrupted = interrupted != 0;
  return summary;
}

}  // namespace

std::vector<std::unique_ptr<AudioSource>> open_sources(const Options& options) {
  std::vector<std::unique_ptr<AudioSource>> sources;
  for (const MemberOptions& member : options.members) {
    std::vector<std::unique_ptr<AudioSource>> files;
    for (const std::string& source : member.sources)
      files.push_back(source == kStandardInput ? open_live(STDIN_FILENO) : open_file(source));
    sources.push_back(play_in_turn(std::move(files)));
  }
  return sources;
}

Summary run(const Options& options, std::vector<std::unique_ptr<AudioSource>> sources) {
  std::optional<EmbeddedService> service;
  if (options.endpoint.empty()) service.emplace();
  watch_signals();
  const FailureLog failures(options.verbose, service ? service->token() : options.token);
  const host::Library library;
  host::Session session(host::session_config(static_cast<std::uint32_t>(options.members.size())));
  Transcriber transcriber(options, std::move(sources), session);
  if (service) {
    transcriber.set_service(service->endpoint(), service->token());
  } else {
    transcriber.set_service(options.endpoint, options.token);
  }
  transcriber.run();
  Summary summary = transcriber.summary();
  summary.reports = failures.counts();
  return summary;
}

}  // namespace zel::transcribe
