// The table through which a host's room drives a session.
#pragma once

#include "zel_rtc_speech_to_text_host.h"

// The constant table that every session record points to. Each operation holds the session's mutex for its whole work.
extern const SttSessionInterface zel_stt_session_interface;
