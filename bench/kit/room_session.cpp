#include "room_session.h"

#include <sys/mman.h>

#include <new>
#include <stdexcept>

namespace bench {
namespace {

std::size_t checked(std::int32_t work_size) {
  if (work_size < 0) throw std::runtime_error("no work size");
  return static_cast<std::size_t>(work_size);
}

}  // namespace

Area::Area(std::size_t size)
    : data_(static_cast<std::byte*>(
          mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0))),
      size_(size) {
  if (data_ == MAP_FAILED) throw std::bad_alloc();
}

Area::~Area() {
  munmap(data_, size_);
}

void Area::discard() {
  madvise(data_, size_, MADV_DONTNEED);
}

Library::Library() : area_(checked(zelRtcSpeechToText_CalculateWorkSize(nullptr))) {
  if (zelRtcSpeechToText_Initialize(nullptr, area_.data(), static_cast<std::int32_t>(area_.size())) == 0)
    throw std::runtime_error("library: not initialized");
}

Library::~Library() {
  zelRtcSpeechToText_Finalize();
}

ZelRtcSpeechToTextSessionConfig session_config(std::uint32_t members) {
  ZelRtcSpeechToTextSessionConfig config;
  zelRtcSpeechToTextSession_SetDefaultConfig(&config);
  config.max_identifiable_members = members;
  return config;
}

std::size_t session_size(std::uint32_t members) {
  const ZelRtcSpeechToTextSessionConfig config = session_config(members);
  return checked(zelRtcSpeechToTextSession_CalculateWorkSize(&config));
}

RoomSession::RoomSession(std::uint32_t members) : area_(session_size(members)) {
  const ZelRtcSpeechToTextSessionConfig config = session_config(members);
  session_ = zelRtcSpeechToTextSession_Create(&config, area_.data(), static_cast<std::int32_t>(area_.size()));
  if (session_ == nullptr) throw std::runtime_error("session of " + std::to_string(members) + " members: not created");
}

RoomSession::~RoomSession() {
  session_->interface_table->ReleaseAllRecognizers(session_->body);
  session_->interface_table->Detach(session_->body);
  zelRtcSpeechToTextSession_Destroy(session_);
}

void RoomSession::lend(std::uint32_t count) {
  const SttSessionInterface& table = *session_->interface_table;
  if (table.IsAttached(session_->body) == 0) table.Attach(session_->body);
  table.ReleaseAllRecognizers(session_->body);
  lent_.clear();
  for (std::uint32_t i = 0; i < count; ++i) {
    SttRecognizerHn recognizer = table.AcquireRecognizer(session_->body);
    if (recognizer == nullptr) throw std::runtime_error("no recognizer free");
    const std::string client_id = "member-" + std::to_string(i);
    recognizer->interface_table->SetMemberId(recognizer->instance, i);
    recognizer->interface_table->SetClientId(recognizer->instance,
                                             reinterpret_cast<const std::uint8_t*>(client_id.c_str()),
                                             static_cast<std::uint32_t>(client_id.size() + 1));
    lent_.push_back(recognizer);
  }
}

void RoomSession::set_endpoint(const std::string& url) {
  session_->interface_table->SetEndpointUrl(session_->body, url.c_str(), static_cast<std::int32_t>(url.size()));
  session_->interface_table->SetAccessToken(session_->body, "token", 5);
}

}  // namespace bench
