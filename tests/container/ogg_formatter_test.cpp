#include "ogg_formatter.h"

#include <string>
#include <vector>

#include "ogg_pages.h"
#include "scripted_host.h"

namespace {

constexpr ZelContainerFormatterOggConfig kConfig = {
    .sampling_rate = 16000, .num_channels = 1, .max_buffer_size_per_write = 256};
constexpr std::int32_t kChunk = 5120;
const Reports kNoRoom{"0 E2022103100:Failed to write buffer because it is not enough buffer length of out data."};
const std::string kTooLong =
    "0 E2022110200:Failed to write buffer. Please increase ZelContainerFormatterOggConfig::max_buffer_size_per_write.";

// A formatter that appends what each call writes to `stream`.
struct Formatter {
  explicit Formatter(const ZelContainerFormatterOggConfig& config = kConfig)
      : area(zelContainerFormatterOgg_CalculateWorkSize(&config)),
        handle(zelContainerFormatterOgg_Create(&config, area.data(), area.size())) {}
  ~Formatter() { EXPECT_EQ(zelContainerFormatterOgg_Destroy(handle), 1); }

  std::int32_t Headers(std::int32_t capacity = kChunk) {
    stream.clear();
    return Take(capacity, zelContainerFormatterOgg_WriteHeaders);
  }
  std::int32_t Write(const std::string& packet, std::int32_t capacity = kChunk) {
    const OggFormatterPacket record = {reinterpret_cast<const std::uint8_t*>(packet.data()),
                                       static_cast<std::int32_t>(packet.size()), 640};
    return Take(capacity, [&record](OggFormatter* formatter, std::uint8_t* out, std::int32_t size) {
      return zelContainerFormatterOgg_WritePacket(formatter, &record, out, size);
    });
  }
  std::int32_t Flush(std::int32_t capacity = kChunk) { return Take(capacity, zelContainerFormatterOgg_Flush); }

  template <typename Call>
  std::int32_t Take(std::int32_t capacity, Call call) {
    WorkArea out(capacity);
    const std::int32_t written = call(handle, static_cast<std::uint8_t*>(out.data()), capacity);
    if (written > 0) stream.append(static_cast<const char*>(out.data()), static_cast<std::size_t>(written));
    EXPECT_LT(written, capacity);
    // Storage in the work area must never be grown.
    EXPECT_EQ(handle->stream.body_storage, 16384);
    EXPECT_EQ(handle->stream.lacing_storage, 1024);
    return written;
  }
  // Writes a whole stream and has it judged.
  void ExpectStream(const std::vector<std::string>& packets, std::int32_t capacity = kChunk) {
    ASSERT_EQ(Headers(), 91);
    for (const std::string& packet : packets) {
      ASSERT_GE(Write(packet, capacity), 0);
      ASSERT_EQ(zelContainerFormatterOgg_GetTotalSize(handle), -1);
    }
    ASSERT_GT(Flush(capacity), 0);
    EXPECT_EQ(zelContainerFormatterOgg_GetTotalSize(handle), static_cast<int>(stream.size()));
    ExpectOpusStream(stream, packets);
  }

  WorkArea area;
  OggFormatter* handle;
  std::string stream;
};

std::string Packet(std::size_t seed, std::size_t size) {
  std::string packet(size, '\0');
  for (std::size_t i = 0; i < size; ++i)
    packet[i] = static_cast<char>(seed * 31 + i * 7);
  return packet;
}

TEST(OggFormatter, RefusesWhatItCannotBuildSilently) {
  ScriptedHost host;
  WorkArea area(200000);
  for (const std::int32_t rate : {-1, 0, 1, 48000, 48001}) {
    for (const std::int32_t packet : {-1, 0, 1, 8192, 8193}) {
      const ZelContainerFormatterOggConfig config = {rate, 1, packet};
      const bool built = zelContainerFormatterOgg_Create(&config, area.data(), area.size()) != nullptr;
      EXPECT_EQ(built, rate >= 1 && rate <= 48000 && packet >= 1 && packet <= 8192) << rate << " " << packet;
    }
  }
  const std::int32_t size = zelContainerFormatterOgg_CalculateWorkSize(&kConfig);
  EXPECT_EQ(zelContainerFormatterOgg_Create(&kConfig, nullptr, size), nullptr);
  EXPECT_EQ(zelContainerFormatterOgg_Create(&kConfig, area.data(), size - 1), nullptr);
}

TEST(OggFormatter, WritesHeadersThatNeedOneByteMoreThanTheyHave) {
  ScriptedHost host;
  Formatter formatter;
  for (const std::int32_t capacity : {1, 28, 47, 91}) {
    EXPECT_EQ(formatter.Headers(capacity), -1) << capacity;
    EXPECT_EQ(host.TakeReports(), kNoRoom) << capacity;
    EXPECT_EQ(formatter.handle->total_written, 0);
  }
  EXPECT_EQ(formatter.Headers(92), 91);
  EXPECT_EQ(zelContainerFormatterOgg_GetTotalSize(formatter.handle), -1);
  EXPECT_EQ(formatter.Flush(), -1);
  EXPECT_EQ(host.TakeReports(), Reports{"0 E2022110231:Failed to flush audio data. Audio data does not exist."});

  // No identification page is defined for another rate: the comment stands alone, and time runs at 48000 / rate.
  Formatter other({48000, 1, 256});
  EXPECT_EQ(other.Headers(), 44);
  EXPECT_EQ(other.handle->identification_length, -1);
  EXPECT_EQ(other.Write("a"), 0);
  EXPECT_GT(other.Flush(), 0);
  EXPECT_EQ(other.handle->granule_position, 640);
}

TEST(OggFormatter, HoldsPacketsUpToItsLimit) {
  ScriptedHost host;
  Formatter formatter;
  ASSERT_EQ(formatter.Headers(), 91);
  EXPECT_EQ(formatter.Write(Packet(1, 257)), -1);
  EXPECT_EQ(formatter.Write(Packet(2, 256)), 0);
  EXPECT_EQ(formatter.Write(Packet(3, 257)), -1);
  const OggFormatterPacket negative = {nullptr, -1, 640};
  EXPECT_EQ(zelContainerFormatterOgg_WritePacket(formatter.handle, &negative, nullptr, 0), -1);
  EXPECT_EQ(host.TakeReports(), (Reports{kTooLong, kTooLong, kTooLong}));
  EXPECT_GT(formatter.Flush(), 0);
  ExpectOpusStream(formatter.stream, {Packet(2, 256)});
}

TEST(OggFormatter, LosesAPageThatDoesNotFitAndSubmitsNoPacketTwice) {
  ScriptedHost host;
  Formatter formatter;
  // As far as libogg finishes a page, then the same again with one byte less than it needs.
  std::size_t writes = 0;
  std::int32_t page = 0;
  ASSERT_EQ(formatter.Headers(), 91);
  for (; page == 0; ++writes)
    page = formatter.Write(Packet(writes, 200));
  ASSERT_EQ(formatter.Headers(), 91);
  for (std::size_t i = 0; i < writes; ++i)
    EXPECT_EQ(formatter.Write(Packet(i, 200), page), i + 1 < writes ? 0 : -1);
  EXPECT_EQ(host.TakeReports(), kNoRoom);
  const auto left = static_cast<std::int32_t>(writes) - (page - 27) / 201;
  EXPECT_EQ(formatter.Flush(), 27 + left * 201) << "the packets that were not on the lost page, once each";
  EXPECT_TRUE(formatter.stream.ends_with(Packet(writes - 1, 200)));
  EXPECT_EQ(zelContainerFormatterOgg_GetTotalSize(formatter.handle), 91 + 27 + left * 201);

  ASSERT_EQ(formatter.Headers(), 91);
  EXPECT_EQ(formatter.Write("abc"), 0);
  EXPECT_EQ(formatter.Flush(27 + 1 + 3), -1);
  EXPECT_EQ(host.TakeReports(), kNoRoom);
  formatter.ExpectStream({"the next stream is whole"});
}

TEST(OggFormatter, WritesWholeStreamsWhateverThePackets) {
  ScriptedHost host;
  Formatter formatter;
  // Around the sizes at which libogg cuts, and at which the final flush takes two pages.
  for (std::size_t size = 0; size <= 256 && !testing::Test::HasFailure(); ++size) {
    const std::size_t most = size == 0 ? 600 : std::min<std::size_t>(2 * 4200 / size, 1500);
    for (std::size_t count = 1; count <= most; count += size < 32 ? 61 : 1) {
      SCOPED_TRACE(std::to_string(count) + " packets of " + std::to_string(size));
      formatter.ExpectStream(std::vector<std::string>(count, Packet(size, size)));
    }
  }
  // The longest packets do not make it grow its storage: four of just above 4096 bytes together make a page that would
  // leave the longest one queued.
  Formatter large({16000, 1, 8192});
  std::vector<std::string> packets;
  for (const std::size_t size : {2000u, 2000u, 2000u, 10u, 8192u, 8192u, 1u, 8191u, 4096u, 255u})
    packets.push_back(Packet(0, size));
  large.ExpectStream(packets, 70000);
}

}  // namespace
