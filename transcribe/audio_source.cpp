#include "audio_source.h"

#include <fcntl.h>
#include <poll.h>
#include <sndfile.h>
#include <soxr.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <utility>

namespace zel::transcribe {
namespace {

constexpr sf_count_t kBlockFrames = 4096;
constexpr int kPauseFrames = 25;  // between two files
constexpr int kMaxChannels = 256;

struct CloseFile {
  void operator()(SNDFILE* file) const { sf_close(file); }
};
struct DeleteResampler {
  void operator()(soxr* resampler) const { soxr_delete(resampler); }
};

class FileSource : public AudioSource {
 public:
  explicit FileSource(const std::string& path);
  ReadResult read(Frame& frame) override;
  std::string error() const override { return error_; }

 private:
  bool refill();
  std::size_t read_mono();
  void resample(std::size_t count);

  std::string path_;
  SF_INFO info_{};
  std::unique_ptr<SNDFILE, CloseFile> file_;
  std::unique_ptr<soxr, DeleteResampler> resampler_;
  std::vector<float> interleaved_;
  std::vector<float> mono_;
  std::vector<std::int16_t> ready_;  // 16 kHz samples from taken_ on
  std::size_t taken_ = 0;
  bool drained_ = false;
  std::string error_;
};

// libsndfile calls every file it cannot make sense of an unknown format; these have a better reason.
void require_readable(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) throw AudioError(path + ": " + std::strerror(errno));
  if (S_ISDIR(status.st_mode)) throw AudioError(path + ": is a directory");
  if (access(path.c_str(), R_OK) != 0) throw AudioError(path + ": " + std::strerror(errno));
}

FileSource::FileSource(const std::string& path) : path_(path) {
  require_readable(path);
  if (path.ends_with(".raw")) {
    info_.format = SF_FORMAT_RAW | SF_FORMAT_PCM_16 | SF_ENDIAN_LITTLE;
    info_.samplerate = kSampleRate;
    info_.channels = 1;
  }
  file_.reset(sf_open(path.c_str(), SFM_READ, &info_));
  if (!file_) throw AudioError(path + ": " + sf_strerror(nullptr));
  if (info_.channels < 1 || info_.channels > kMaxChannels || info_.samplerate < 1) {
    throw AudioError(path + ": unusable channel count or sampling rate");
  }
  soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_INT16_I);
  io.flags |= SOXR_NO_DITHER;  // the same file gives the same samples every time
  soxr_error_t failure = nullptr;
  resampler_.reset(soxr_create(info_.samplerate, kSampleRate, 1, &failure, &io, nullptr, nullptr));
  if (failure != nullptr) throw AudioError(path + ": cannot be resampled: " + failure);
  interleaved_.resize(static_cast<std::size_t>(kBlockFrames * info_.channels));
  if (!refill()) throw AudioError(error_.empty() ? path + ": holds no audio" : error_);
}

// Decodes a block, its channels averaged into mono_. Result: samples; 0 at the end.
std::size_t FileSource::read_mono() {
  const sf_count_t got = sf_readf_float(file_.get(), interleaved_.data(), kBlockFrames);
  if (got <= 0) {
    if (sf_error(file_.get()) != SF_ERR_NO_ERROR) error_ = path_ + ": " + sf_strerror(file_.get());
    return 0;
  }
  const auto channels = static_cast<std::size_t>(info_.channels);
  mono_.resize(static_cast<std::size_t>(got));
  for (std::size_t i = 0; i < mono_.size(); ++i) {
    float sum = 0;
    for (std::size_t c = 0; c < channels; ++c)
      sum += interleaved_[i * channels + c];
    const float mean = sum / static_cast<float>(channels);
    mono_[i] = std::isfinite(mean) ? std::clamp(mean, -1.0F, 1.0F) : 0.0F;
  }
  return mono_.size();
}

// Appends `count` samples of mono_ at 16 kHz to ready_; with 0, what is still inside the resampler.
void FileSource::resample(std::size_t count) {
  const double ratio = static_cast<double>(kSampleRate) / info_.samplerate;
  std::size_t consumed = 0;
  for (;;) {
    const std::size_t before = ready_.size();
    const auto room = static_cast<std::size_t>(static_cast<double>(count - consumed) * ratio) + 1024;
    ready_.resize(before + room);
    std::size_t used = 0;
    std::size_t made = 0;
    soxr_process(resampler_.get(), count > 0 ? mono_.data() + consumed : nullptr, count - consumed, &used,
                 ready_.data() + before, room, &made);
    ready_.resize(before + made);
    consumed += used;
    if (made < room && (consumed == count || used == 0)) return;
  }
}

// Makes at least one sample ready; false when there is none left.
bool FileSource::refill() {
  ready_.erase(ready_.begin(), ready_.begin() + static_cast<std::ptrdiff_t>(taken_));
  taken_ = 0;
  const std::size_t before = ready_.size();
  while (!drained_ && ready_.size() == before) {
    const std::size_t count = read_mono();
    drained_ = count == 0;
    resample(count);
  }
  return ready_.size() > before;
}

ReadResult FileSource::read(Frame& frame) {
  while (ready_.size() - taken_ < kFrameSamples && refill()) {
  }
  const std::size_t count = std::min(ready_.size() - taken_, kFrameSamples);
  if (count == 0) return ReadResult::kEnd;
  frame.fill(0);
  std::copy_n(ready_.begin() + static_cast<std::ptrdiff_t>(taken_), count, frame.begin());
  taken_ += count;
  return ReadResult::kFrame;
}

class LiveSource : public AudioSource {
 public:
  explicit LiveSource(int descriptor) : descriptor_(descriptor) {}
  ReadResult read(Frame& frame) override;
  std::string error() const override { return error_; }
  bool live() const override { return true; }

 private:
  int descriptor_;
  std::array<unsigned char, 2 * kFrameSamples> bytes_{};
  std::size_t filled_ = 0;
  bool ended_ = false;
  std::string error_;
};

ReadResult LiveSource::read(Frame& frame) {
  while (!ended_ && filled_ < bytes_.size()) {
    pollfd ready{descriptor_, POLLIN, 0};
    if (poll(&ready, 1, 0) <= 0) return ReadResult::kNotYet;
    const ssize_t got = ::read(descriptor_, bytes_.data() + filled_, bytes_.size() - filled_);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) return ReadResult::kNotYet;
    if (got < 0) error_ = std::string("standard input: ") + std::strerror(errno);
    ended_ = got <= 0;
    if (got > 0) filled_ += static_cast<std::size_t>(got);
  }
  const std::size_t samples = filled_ / 2;  // half a sample at the end says nothing
  if (samples == 0) return ReadResult::kEnd;
  frame.fill(0);
  for (std::size_t i = 0; i < samples; ++i) {
    frame[i] = static_cast<std::int16_t>(bytes_[2 * i] | bytes_[2 * i + 1] << 8);
  }
  filled_ = 0;
  return ReadResult::kFrame;
}

class Playlist : public AudioSource {
 public:
  explicit Playlist(std::vector<std::unique_ptr<AudioSource>> sources) : sources_(std::move(sources)) {}
  ReadResult read(Frame& frame) override;
  std::string error() const override { return error_; }
  bool live() const override { return current_ < sources_.size() && sources_[current_]->live(); }

 private:
  std::vector<std::unique_ptr<AudioSource>> sources_;
  std::size_t current_ = 0;
  int pause_ = 0;
  std::string error_;
};

ReadResult Playlist::read(Frame& frame) {
  while (current_ < sources_.size()) {
    if (pause_ > 0) {
      --pause_;
      frame.fill(0);
      return ReadResult::kFrame;
    }
    const ReadResult result = sources_[current_]->read(frame);
    if (result != ReadResult::kEnd) return result;
    if (error_.empty()) error_ = sources_[current_]->error();
    sources_[current_++].reset();
    if (current_ < sources_.size()) pause_ = kPauseFrames;
  }
  return ReadResult::kEnd;
}

}  // namespace

std::unique_ptr<AudioSource> open_file(const std::string& path) {
  return std::make_unique<FileSource>(path);
}

std::unique_ptr<AudioSource> open_live(int descriptor) {
  return std::make_unique<LiveSource>(descriptor);
}

std::unique_ptr<AudioSource> play_in_turn(std::vector<std::unique_ptr<AudioSource>> sources) {
  return std::make_unique<Playlist>(std::move(sources));
}

}  // namespace zel::transcribe
