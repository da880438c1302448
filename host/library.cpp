#include "library.h"

#include "bridge_services.h"

namespace zel::host {
namespace {

std::unique_ptr<std::byte[]> work_area(std::int32_t size, const char* owner) {
  if (size < 0) throw LibraryError(std::string(owner) + ": refused configuration");
  return std::make_unique<std::byte[]>(static_cast<std::size_t>(size));
}

}  // namespace

Library::Library() {
  zelRtcSpeechToText_SetBaseRtcBridgeInterface(&bridge_interface());
  const std::int32_t size = zelRtcSpeechToText_CalculateWorkSize(nullptr);
  work_ = work_area(size, "library");
  if (zelRtcSpeechToText_Initialize(nullptr, work_.get(), size) == 0) throw LibraryError("library: not initialized");
}

Library::~Library() {
  zelRtcSpeechToText_Finalize();
  // A session that is still attached keeps the library alive, and the library its work area: better lost than reused.
  if (zelRtcSpeechToText_IsInitialized() != 0) static_cast<void>(work_.release());
}

ZelRtcSpeechToTextSessionConfig session_config(std::uint32_t max_members) {
  ZelRtcSpeechToTextSessionConfig config;
  zelRtcSpeechToTextSession_SetDefaultConfig(&config);
  config.max_identifiable_members = max_members;
  return config;
}

Session::Session(const ZelRtcSpeechToTextSessionConfig& config) {
  const std::int32_t size = zelRtcSpeechToTextSession_CalculateWorkSize(&config);
  work_ = work_area(size, "session");
  handle_ = zelRtcSpeechToTextSession_Create(&config, work_.get(), size);
  if (handle_ == nullptr) throw LibraryError("session: not created");
}

Session::~Session() {
  if (zelRtcSpeechToTextSession_Destroy(handle_) == 0) static_cast<void>(work_.release());
}

bool Session::set_enabled(const std::string& client_id, bool enabled) {
  return zelRtcSpeechToTextSession_EnableMember(handle_, client_id.c_str(), enabled ? 1 : 0) != 0;
}

bool Session::set_language(const std::string& client_id, ZelRtcSpeechToTextLanguage language) {
  return zelRtcSpeechToTextSession_SetLanguage(handle_, client_id.c_str(), language) != 0;
}

}  // namespace zel::host
