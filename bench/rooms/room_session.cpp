#include "room_session.h"

#include <sys/mman.h>

#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>

#include "bridge_services.h"
#include "reports.h"

namespace rooms {

Area::Area(std::size_t size)
    : data_(static_cast<std::byte*>(
          mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0))),
      size_(size) {
  if (data_ == MAP_FAILED) throw std::bad_alloc();
}

Area::~Area() {
  munmap(data_, size_);
}

void Area::Discard() {
  madvise(data_, size_, MADV_DONTNEED);
}

void InitializeLibrary() {
  if (zelRtcSpeechToText_IsInitialized() != 0) return;
  zel::host::set_report_sink([](const zel::host::Report&) {});
  zelRtcSpeechToText_SetBaseRtcBridgeInterface(&zel::host::bridge_interface());
  const std::int32_t size = zelRtcSpeechToText_CalculateWorkSize(nullptr);
  static const auto work = std::make_unique<std::byte[]>(static_cast<std::size_t>(size));
  if (zelRtcSpeechToText_Initialize(nullptr, work.get(), size) == 0) throw std::runtime_error("library");
}

ZelRtcSpeechToTextSessionConfig SessionConfig(std::uint32_t members) {
  ZelRtcSpeechToTextSessionConfig config;
  zelRtcSpeechToTextSession_SetDefaultConfig(&config);
  config.max_identifiable_members = members;
  return config;
}

std::size_t SessionSize(std::uint32_t members) {
  InitializeLibrary();
  const ZelRtcSpeechToTextSessionConfig config = SessionConfig(members);
  const std::int32_t size = zelRtcSpeechToTextSession_CalculateWorkSize(&config);
  if (size < 0) throw std::runtime_error("session of " + std::to_string(members) + " members: no work size");
  return static_cast<std::size_t>(size);
}

RoomSession::RoomSession(std::uint32_t members) : area_(SessionSize(members)) {
  const ZelRtcSpeechToTextSessionConfig config = SessionConfig(members);
  session_ = zelRtcSpeechToTextSession_Create(&config, area_.data(), static_cast<std::int32_t>(area_.size()));
  if (session_ == nullptr) throw std::runtime_error("session of " + std::to_string(members) + " members: not created");
  session_->interface_table->Attach(session_->body);
}

RoomSession::~RoomSession() {
  session_->interface_table->ReleaseAllRecognizers(session_->body);
  session_->interface_table->Detach(session_->body);
  zelRtcSpeechToTextSession_Destroy(session_);
}

void RoomSession::SetActive(std::uint32_t count) {
  const SttSessionInterface& table = *session_->interface_table;
  table.ReleaseAllRecognizers(session_->body);
  active_.clear();
  for (std::uint32_t i = 0; i < count; ++i) {
    SttRecognizerHn recognizer = table.AcquireRecognizer(session_->body);
    if (recognizer == nullptr) throw std::runtime_error("no recognizer free");
    const std::string client_id = "member-" + std::to_string(i);
    recognizer->interface_table->SetMemberId(recognizer->instance, i);
    recognizer->interface_table->SetClientId(recognizer->instance,
                                             reinterpret_cast<const std::uint8_t*>(client_id.c_str()),
                                             static_cast<std::uint32_t>(client_id.size() + 1));
    active_.push_back(recognizer);
  }
}

void RoomSession::SetEndpoint(const char* url) {
  const auto length = static_cast<std::int32_t>(std::strlen(url));
  session_->interface_table->SetEndpointUrl(session_->body, url, length);
  session_->interface_table->SetAccessToken(session_->body, "token", 5);
}

}  // namespace rooms
