// Where a member's audio comes from: files played one after the other with a second of silence between them, or
// standard input. Whatever the file's rate and channel count, what comes out is 16 kHz mono; only a block of it is in
// memory at a time.
//
// Thread rule: an object belongs to one thread. Errors: opening throws AudioError, with the name and the reason.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "audio.h"

namespace zel::transcribe {

class AudioError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class ReadResult {
  kFrame,   ///< the frame is filled; the last one of a source is padded with silence
  kNotYet,  ///< live audio that has not been spoken yet
  kEnd,
};

class AudioSource {
 public:
  virtual ~AudioSource() = default;
  virtual ReadResult read(Frame& frame) = 0;
  /** Why the audio ended before its time; empty when it did not. */
  virtual std::string error() const { return {}; }
  /** Audio that comes at its own pace. */
  virtual bool live() const { return false; }
};

/** Opens any file that libsndfile reads; a name that ends in ".raw" is headerless 16-bit 16 kHz mono, little-endian.
 * The beginning is decoded at once, so a file that holds no audio is refused here. */
std::unique_ptr<AudioSource> open_file(const std::string& path);

/** Raw 16-bit 16 kHz mono, little-endian, from a file descriptor, which stays the caller's. Never blocks. Ends when the
 * writer has closed it. */
std::unique_ptr<AudioSource> open_live(int descriptor);

/** The sources one after the other, with a second of silence between two. At least one. */
std::unique_ptr<AudioSource> play_in_turn(std::vector<std::unique_ptr<AudioSource>> sources);

}  // namespace zel::transcribe
