#include "text_packet.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace zel::host {
namespace {

// A packet on its way, laid out as the plug-in does it.
struct Fixture {
  const char* text = "hello";
  SttPacket packet{};
  std::array<void*, 4> items{};
  PtrQueue queue{items.data(), 4, 3, 6, 0};
  PacketRef ref{&packet, 0, 0, 1, &queue, &Fixture::released, this};
  std::vector<std::string> events;

  Fixture() {
    const std::array<std::pair<std::uint32_t, std::uint64_t>, 4> fields = {
        {{1024, reinterpret_cast<std::uintptr_t>(text)}, {512, 5}, {32, 0xFFFFFFFF}, {4, 1ULL << 40}}};
    for (std::size_t i = 0; i < fields.size(); ++i) {
      packet.field_flags[i] = fields[i].first;
      packet.field_values[i] = fields[i].second;
      packet.field_mask |= fields[i].first;
    }
    packet.field_values[4] = 99;  // left over from earlier use
  }
  static void released(void* context, PacketRef* ref) {
    auto& self = *static_cast<Fixture*>(context);
    self.events.push_back(ref == &self.ref && self.queue.write_index == 6 ? "callback" : "too late");
  }
};

TEST(TextPacket, ReadsFieldsByFlag) {
  Fixture f;
  const TextPacket packet(&f.ref);
  EXPECT_EQ(packet.text(), "hello");
  EXPECT_EQ(packet.member_id(), 0xFFFFFFFFU);
  EXPECT_EQ(packet.timestamp_us(), 1ULL << 40);
  EXPECT_EQ(packet_field(f.packet, 8), std::nullopt);
  EXPECT_EQ(packet_field(f.packet, 0), std::nullopt) << "free slots hold nothing";
  EXPECT_FALSE(TextPacket(nullptr));
  EXPECT_EQ(TextPacket().text(), "");
}

TEST(TextPacket, LastReferenceReturnsTheEnvelope) {
  Fixture f;
  f.ref.ref_count = 2;
  { TextPacket shared(&f.ref); }
  EXPECT_EQ(f.ref.ref_count, 1U);
  EXPECT_EQ(f.queue.write_index, 6U);
  {
    TextPacket last(&f.ref);
    TextPacket moved(std::move(last));
  }
  EXPECT_EQ(f.events, std::vector<std::string>{"callback"});
  EXPECT_EQ(f.items[2], &f.ref) << "written at write index modulo capacity";
  EXPECT_EQ(f.queue.write_index, 7U);
  release_packet(&f.ref);
  EXPECT_EQ(f.queue.write_index, 7U) << "a second release changes nothing";
}

}  // namespace
}  // namespace zel::host
