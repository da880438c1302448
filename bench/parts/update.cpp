// Counted only: a session's update while all its members are silent. A unit: one recognizer.
#include <array>
#include <memory>

#include "bridge.h"
#include "cases.h"
#include "zel_rtc_speech_to_text.h"
#include "zel_rtc_speech_to_text_host.h"

namespace bench_parts {
namespace {

constexpr std::uint32_t kMembers = 64;

// The library is initialized for as long as one lives.
class IdleSession {
 public:
  IdleSession() {
    library_work_.resize(static_cast<std::size_t>(zelRtcSpeechToText_CalculateWorkSize(nullptr)));
    Require(zelRtcSpeechToText_Initialize(nullptr, library_work_.data(),
                                          static_cast<std::int32_t>(library_work_.size())) == 1,
            "library");
    ZelRtcSpeechToTextSessionConfig config;
    zelRtcSpeechToTextSession_SetDefaultConfig(&config);
    config.max_identifiable_members = kMembers;
    work_.resize(static_cast<std::size_t>(zelRtcSpeechToTextSession_CalculateWorkSize(&config)));
    session_ = zelRtcSpeechToTextSession_Create(&config, work_.data(), static_cast<std::int32_t>(work_.size()));
    Require(session_ != nullptr, "session");
    session_->interface_table->Attach(session_->body);
    for (SttRecognizerHn& member : members_)
      Require((member = session_->interface_table->AcquireRecognizer(session_->body)) != nullptr, "recognizer");
  }
  ~IdleSession() {
    session_->interface_table->ReleaseAllRecognizers(session_->body);
    session_->interface_table->Detach(session_->body);
    zelRtcSpeechToTextSession_Destroy(session_);
    zelRtcSpeechToText_Finalize();
  }
  IdleSession(const IdleSession&) = delete;
  IdleSession& operator=(const IdleSession&) = delete;

  void Update() { session_->interface_table->Update(session_->body); }

  // One atomic load in each recognizer's area.
  void Touch() {
    for (SttRecognizerHn member : members_)
      static_cast<void>(__atomic_load_n(reinterpret_cast<const std::uint32_t*>(member->instance), __ATOMIC_SEQ_CST));
  }

 private:
  std::vector<std::uint8_t> library_work_, work_;
  SttSession* session_;
  std::array<SttRecognizerHn, kMembers> members_;
};

}  // namespace

void AddUpdateCases(Cases& cases) {
  auto session = std::make_shared<IdleSession>();
  cases.push_back({"update_warm/plugin", kMembers, [session] { session->Update(); }});
  cases.push_back({"update_warm/limit", kMembers, [session] { session->Touch(); }});
}

}  // namespace bench_parts
