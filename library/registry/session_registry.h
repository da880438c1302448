// The list of live sessions, through which finalization finds what the application has left behind, and the host's
// clock service, which runs as long as the registry exists.
//
// Thread rule: Append and Unlink from any thread; they hold the registry mutex, inside which no other lock is taken and
// which is never taken inside a session's. Initialize and Finalize must not overlap anything.
#pragma once

#include "zel_rtc_speech_to_text_host.h"

struct SttRegistryConfig {
  uint32_t reserved;  // 4; only the presence of the record is checked
};

inline constexpr SttRegistryConfig kSttRegistryConfig = {4};

// Bytes of work area; -1 for null (E2022111443).
int32_t zelSttRegistry_CalculateWorkSize(const SttRegistryConfig* config);

// Builds the registry in `work` and starts the clock. 1; 0 after a report, with nothing held.
uint32_t zelSttRegistry_Initialize(const SttRegistryConfig* config, void* work, uint32_t work_size);

// Destroys every session that is registered, then the registry, and stops the clock: 1. While a session refuses because
// it is attached, the registry stays with it and the clock runs on: 0. Without a registry: E2022111449, 1.
uint32_t zelSttRegistry_Finalize();

bool zelSttRegistry_Exists();

// Appends at the tail.
void zelSttRegistry_Append(SttRegistryLink* link);

// Takes the link out of the list, if it is in, and clears its next pointer.
void zelSttRegistry_Unlink(SttRegistryLink* link);
