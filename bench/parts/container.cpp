// Row "container". A run: every utterance of the input as an Ogg Opus stream in memory. A unit: one packet.
#include <memory>
#include <stdexcept>

#include "avformat_muxer.h"
#include "cases.h"
#include "ogg_formatter.h"
#include "ogg_limit.h"
#include "utterances.h"

namespace bench_parts {
namespace {

constexpr std::size_t kStreamRoom = 65536;  // bytes; a page of the plug-in gets what is left, never less than it needs

// The plug-in's formatter on the reference host's services.
class Plugin {
 public:
  Plugin() {
    constexpr ZelContainerFormatterOggConfig config = {16000, 1, 256};
    work_.resize(static_cast<std::size_t>(zelContainerFormatterOgg_CalculateWorkSize(&config)));
    formatter_ = zelContainerFormatterOgg_Create(&config, work_.data(), static_cast<std::int32_t>(work_.size()));
    Require(formatter_ != nullptr, "formatter");
  }

  std::size_t Write(const Utterance& utterance, std::uint8_t* output) {
    std::int32_t size = zelContainerFormatterOgg_WriteHeaders(formatter_, output, Room(0));
    for (const Packet& data : utterance) {
      const OggFormatterPacket packet = {data.data(), static_cast<std::int32_t>(data.size()), 640};
      size += zelContainerFormatterOgg_WritePacket(formatter_, &packet, output + size, Room(size));
    }
    size += zelContainerFormatterOgg_Flush(formatter_, output + size, Room(size));
    return static_cast<std::size_t>(size);
  }

 private:
  static std::int32_t Room(std::int32_t used) { return static_cast<std::int32_t>(kStreamRoom) - used; }

  std::vector<std::uint8_t> work_;
  OggFormatter* formatter_;
};

class Limit {
 public:
  std::size_t Write(const Utterance& utterance, std::uint8_t* output) {
    std::int32_t size = ogg_.WriteHeaders(output);
    for (const Packet& data : utterance)
      size += ogg_.WritePacket(data.data(), static_cast<std::uint32_t>(data.size()), output + size);
    size += ogg_.Flush(output + size);
    return static_cast<std::size_t>(size);
  }

 private:
  OggLimit ogg_;
};

std::vector<std::uint8_t> Stream(auto& contestant, const Utterance& utterance) {
  std::vector<std::uint8_t> stream(kStreamRoom);
  stream.resize(contestant.Write(utterance, stream.data()));
  return stream;
}

template <typename Contestant>
void Add(Cases& cases, const std::string& contestant, const Speech& speech) {
  auto writer = std::make_shared<Contestant>();
  auto output = std::make_shared<std::vector<std::uint8_t>>(kStreamRoom);
  cases.push_back({"container/" + contestant + "/" + speech.name, speech.Packets(), [writer, output, &speech] {
                     for (const Utterance& utterance : speech.utterances)
                       writer->Write(utterance, output->data());
                   }});
}

// The plug-in and the limit write the same bytes; libavformat packs its pages otherwise, but the same packets.
void Compare(const Speech& speech) {
  Plugin plugin;
  Limit limit;
  AvformatMuxer muxer;
  for (const Utterance& utterance : speech.utterances) {
    const std::vector<std::uint8_t> stream = Stream(plugin, utterance);
    Require(stream == Stream(limit, utterance), "container: streams");
    Require(OggPackets(stream) == utterance, "container: packets");
    Require(OggPackets(Stream(muxer, utterance)) == utterance, "container: packets of libavformat");
  }
}

}  // namespace

void AddContainerCases(Cases& cases) {
  for (const Speech& speech : Speeches()) {
    Compare(speech);
    Add<Plugin>(cases, "plugin", speech);
    Add<Limit>(cases, "limit", speech);
    Add<AvformatMuxer>(cases, "libavformat", speech);
  }
}

}  // namespace bench_parts
