// libavformat's Ogg muxer, writing into memory: a program that does with it what the plug-in does with libogg.
#include <array>

#include "avformat_muxer.h"
#include "pipeline.h"

namespace bench {
namespace {

class LibavformatMember final : public PipelineMember {
 public:
  LibavformatMember() {
    for (Stream& stream : streams_)
      stream.resize(kStreamRoom);
  }

  void begin_round() override {
    fill_ = silent_frames_ = 0;
    speaks_ = false;
  }

  void put_frame(const SttAudioFrame& frame) override {
    if (frame.data == nullptr) {
      if (++silent_frames_ == kPause && speaks_) end_utterance();
      return;
    }
    if (!speaks_) muxer_.begin(streams_[fill_]);
    speaks_ = true;
    muxer_.write({frame.data, frame.size});
    silent_frames_ = 0;
  }

  std::vector<Stream> streams() override {
    std::vector<Stream> streams;
    for (std::size_t i = 0; i < fill_; ++i)
      streams.emplace_back(streams_[i].begin(), streams_[i].begin() + static_cast<std::ptrdiff_t>(sizes_[i]));
    return streams;
  }

 private:
  void end_utterance() {
    sizes_[fill_++] = muxer_.end();
    speaks_ = false;
  }

  AvformatMuxer muxer_;
  bool speaks_ = false;  // a stream is under way
  std::size_t silent_frames_ = 0;
  std::array<Stream, kUtterances> streams_;
  std::array<std::size_t, kUtterances> sizes_{};
  std::size_t fill_ = 0;
};

}  // namespace

std::unique_ptr<PipelineMember> make_libavformat_member() {
  return std::make_unique<LibavformatMember>();
}

}  // namespace bench
