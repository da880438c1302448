// Row "container". A run: every utterance of the input as an Ogg Opus stream in memory. A unit: one packet.
#include <memory>

#include "avformat_muxer.h"
#include "cases.h"
#include "ogg_formatter.h"
#include "ogg_limit.h"
#include "ogg_packets.h"
#include "utterances.h"

namespace bench {
namespace {

constexpr std::size_t kStreamRoom = 65536;  // bytes; a page of the plug-in gets what is left, never less than it needs

// The plug-in's formatter on the reference host's services.
class Plugin {
 public:
  Plugin() {
    constexpr ZelContainerFormatterOggConfig config = {16000, 1, 256};
    work_.resize(static_cast<std::size_t>(zelContainerFormatterOgg_CalculateWorkSize(&config)));
    formatter_ = zelContainerFormatterOgg_Create(&config, work_.data(), static_cast<std::int32_t>(work_.size()));
    require(formatter_ != nullptr, "formatter");
  }

  std::size_t write(const Utterance& utterance, std::uint8_t* output) {
    std::int32_t size = zelContainerFormatterOgg_WriteHeaders(formatter_, output, room(0));
    for (const Packet& data : utterance) {
      const OggFormatterPacket packet = {data.data(), static_cast<std::int32_t>(data.size()), 640};
      size += zelContainerFormatterOgg_WritePacket(formatter_, &packet, output + size, room(size));
    }
    size += zelContainerFormatterOgg_Flush(formatter_, output + size, room(size));
    return static_cast<std::size_t>(size);
  }

 private:
  static std::int32_t room(std::int32_t used) { return static_cast<std::int32_t>(kStreamRoom) - used; }

  std::vector<std::uint8_t> work_;
  OggFormatter* formatter_;
};

class Limit {
 public:
  std::size_t write(const Utterance& utterance, std::uint8_t* output) {
    std::int32_t size = ogg_.write_headers(output);
    for (const Packet& data : utterance)
      size += ogg_.write_packet(data.data(), static_cast<std::uint32_t>(data.size()), output + size);
    size += ogg_.flush(output + size);
    return static_cast<std::size_t>(size);
  }

 private:
  OggLimit ogg_;
};

class Libavformat {
 public:
  std::size_t write(const Utterance& utterance, std::uint8_t* output) {
    muxer_.begin({output, kStreamRoom});
    for (const Packet& data : utterance)
      muxer_.write(data);
    return muxer_.end();
  }

 private:
  AvformatMuxer muxer_;
};

Packet stream_of(auto& contestant, const Utterance& utterance) {
  Packet stream(kStreamRoom);
  stream.resize(contestant.write(utterance, stream.data()));
  return stream;
}

template <typename Contestant>
void add(Cases& cases, const std::string& contestant, const Speech& speech) {
  auto writer = std::make_shared<Contestant>();
  auto output = std::make_shared<std::vector<std::uint8_t>>(kStreamRoom);
  cases.push_back({"container/" + contestant + "/" + speech.name, speech.packets(), [writer, output, &speech] {
                     for (const Utterance& utterance : speech.utterances)
                       writer->write(utterance, output->data());
                   }});
}

// The plug-in and the limit write the same bytes; libavformat packs its pages otherwise, but the same packets.
void compare(const Speech& speech) {
  Plugin plugin;
  Limit limit;
  Libavformat libavformat;
  for (const Utterance& utterance : speech.utterances) {
    const Packet stream = stream_of(plugin, utterance);
    require(stream == stream_of(limit, utterance), "container: streams");
    require(ogg_packets(stream) == utterance, "container: packets");
    require(ogg_packets(stream_of(libavformat, utterance)) == utterance, "container: packets of libavformat");
  }
}

}  // namespace

void add_container_cases(Cases& cases) {
  for (const Speech& speech : speeches()) {
    compare(speech);
    add<Plugin>(cases, "plugin", speech);
    add<Limit>(cases, "limit", speech);
    add<Libavformat>(cases, "libavformat", speech);
  }
}

}  // namespace bench
