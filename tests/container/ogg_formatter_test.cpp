#include "ogg_formatter.h"

#include <functional>
#include <string>
#include <vector>

#include "ogg_pages.h"
#include "scripted_host.h"

namespace {

using std::string_literals::operator""s;

constexpr ZelContainerFormatterOggConfig kConfig = {
    .sampling_rate = 16000, .num_channels = 1, .max_buffer_size_per_write = 256};
constexpr std::int32_t kChunk = 5120;
const Reports kNoRoom{"0 E2022103100:Failed to write buffer because it is not enough buffer length of out data."};
const Reports kTooLong{
    "0 E2022110200:Failed to write buffer. Please increase "
    "ZelContainerFormatterOggConfig::max_buffer_size_per_write."};
const Reports kNothingHeld{"0 E2022110231:Failed to flush audio data. Audio data does not exist."};

// A formatter that appends what each call writes to `stream`.
struct Formatter {
  explicit Formatter(const ZelContainerFormatterOggConfig& config = kConfig)
      : area(zelContainerFormatterOgg_CalculateWorkSize(&config)),
        handle(zelContainerFormatterOgg_Create(&config, area.data(), area.size())) {}
  ~Formatter() { EXPECT_EQ(zelContainerFormatterOgg_Destroy(handle), 1); }

  std::int32_t Headers(std::int32_t capacity = kChunk) {
    stream.clear();
    return Take(capacity,
                [&](std::uint8_t* out) { return zelContainerFormatterOgg_WriteHeaders(handle, out, capacity); });
  }
  std::int32_t Write(const std::string& packet, std::int32_t capacity = kChunk) {
    const OggFormatterPacket record = {reinterpret_cast<const std::uint8_t*>(packet.data()),
                                       static_cast<std::int32_t>(packet.size()), 640};
    return Take(capacity, [&](std::uint8_t* out) {
      return zelContainerFormatterOgg_WritePacket(handle, &record, out, capacity);
    });
  }
  std::int32_t Flush(std::int32_t capacity = kChunk) {
    return Take(capacity, [&](std::uint8_t* out) { return zelContainerFormatterOgg_Flush(handle, out, capacity); });
  }
  std::int32_t Take(std::int32_t capacity, const std::function<std::int32_t(std::uint8_t*)>& call) {
    WorkArea out(capacity);
    const std::int32_t written = call(static_cast<std::uint8_t*>(out.data()));
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

std::string Packet(int seed, std::size_t size) {
  std::string packet(size, '\0');
  for (std::size_t i = 0; i < size; ++i)
    packet[i] = static_cast<char>(seed * 31 + static_cast<int>(i) * 7);
  return packet;
}

TEST(OggFormatter, RefusesWhatItCannotBuildSilently) {
  ScriptedHost host;
  const struct {
    std::int32_t rate, packet;
    bool accepted;
  } cases[] = {{1, 1, true},        {48000, 8192, true}, {0, 256, false},    {-1, 256, false},
               {48001, 256, false}, {16000, 0, false},   {16000, -1, false}, {16000, 8193, false}};
  WorkArea area(200000);
  for (const auto& test : cases) {
    const ZelContainerFormatterOggConfig config = {test.rate, 1, test.packet};
    EXPECT_EQ(zelContainerFormatterOgg_Create(&config, area.data(), area.size()) != nullptr, test.accepted)
        << test.rate << " " << test.packet;
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
  EXPECT_EQ(host.TakeReports(), kNothingHeld);

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
  EXPECT_EQ(formatter.handle->held, 0);
  EXPECT_EQ(formatter.Write(Packet(2, 256)), 0);
  EXPECT_EQ(formatter.Write(Packet(3, 257)), -1);
  const OggFormatterPacket negative = {nullptr, -1, 640};
  EXPECT_EQ(zelContainerFormatterOgg_WritePacket(formatter.handle, &negative, nullptr, 0), -1);
  EXPECT_EQ(host.TakeReports(), (Reports{kTooLong[0], kTooLong[0], kTooLong[0]}));
  EXPECT_EQ(formatter.handle->granule_position, 0) << "nothing was submitted";
  EXPECT_GT(formatter.Flush(), 0);
  ExpectOpusStream(formatter.stream, {Packet(2, 256)});
}

TEST(OggFormatter, LosesAPageThatDoesNotFitAndSubmitsNoPacketTwice) {
  ScriptedHost host;
  Formatter formatter;
  // As far as libogg finishes a page: known from a first run, which also tells its length.
  std::int32_t before = 0, page = 0;
  ASSERT_EQ(formatter.Headers(), 91);
  for (; page == 0; ++before)
    page = formatter.Write(Packet(before, 200));
  const auto replay = [&](std::int32_t capacity) {
    EXPECT_EQ(formatter.Headers(), 91);
    for (int i = 0; i < before - 1; ++i)
      EXPECT_EQ(formatter.Write(Packet(i, 200)), 0);
    return formatter.Write(Packet(before, 200), capacity);
  };
  EXPECT_EQ(replay(page + 1), page);
  EXPECT_EQ(replay(page), -1);
  EXPECT_EQ(host.TakeReports(), kNoRoom);
  EXPECT_EQ(formatter.handle->total_written, 91);
  EXPECT_EQ(formatter.handle->held_size, 200);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(formatter.handle->held_data), 200), Packet(before, 200));
  const std::int32_t last = formatter.Flush();
  EXPECT_EQ(last, 27 + (before - (page - 27) / 201) * 201) << "the packets that were not on the lost page, once each";
  EXPECT_EQ(zelContainerFormatterOgg_GetTotalSize(formatter.handle), 91 + last);
  EXPECT_EQ(formatter.handle->packet_counter, 2 + before);

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
      formatter.ExpectStream(std::vector<std::string>(count, Packet(static_cast<int>(size), size)));
    }
  }
  // 60 s, of packets of one size, and of all sizes.
  for (const int size : {0, 1, 40, 80, 254, 255, 256, -1}) {
    SCOPED_TRACE("1500 packets of " + std::to_string(size));
    std::vector<std::string> packets;
    for (int i = 0; i < 1500; ++i)
      packets.push_back(Packet(i, static_cast<std::size_t>(size < 0 ? i * 7919 % 257 : size)));
    formatter.ExpectStream(packets);
  }
}

TEST(OggFormatter, NeverGrowsItsStorageForTheLongestPackets) {
  ScriptedHost host;
  Formatter formatter({16000, 1, 8192});
  for (const std::size_t size : {8192u, 8191u, 5000u, 4096u, 4095u, 2048u, 255u}) {
    SCOPED_TRACE(size);
    std::vector<std::string> packets;
    for (int i = 0; i < 300; ++i)
      packets.push_back(Packet(i, i % 3 == 2 ? 1 : size));
    formatter.ExpectStream(packets, 70000);
  }
  // Four packets of just above 4096 bytes make a page that would leave the longest packet queued.
  std::vector<std::string> packets;
  for (const std::size_t size : {2000u, 2000u, 2000u, 10u, 8192u, 8192u, 1u})
    packets.push_back(Packet(0, size));
  formatter.ExpectStream(packets, 70000);
}

}  // namespace
