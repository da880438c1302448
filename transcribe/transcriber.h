// All members at once in one room, from their audio to the captions.
//
// Thread rule: run is called once, on the main thread. While it runs, the first SIGINT or SIGTERM ends the audio of all
// members, and what has been said is still recognized; a second one kills.
#pragma once

#include <memory>
#include <vector>

#include "audio_source.h"
#include "options.h"
#include "summary.h"

namespace zel::transcribe {

/** Opens every member's audio, in the order of the members. Throws AudioError. */
std::vector<std::unique_ptr<AudioSource>> open_sources(const Options& options);

/** Starts the embedded service when there is no endpoint. Ends the process with status 1 when standard output takes no
 * more. Throws host::RoomError, host::LibraryError, std::runtime_error. */
Summary run(const Options& options, std::vector<std::unique_ptr<AudioSource>> sources);

}  // namespace zel::transcribe
