#include "text_packet.h"

#include <gtest/gtest.h>

#include <array>

namespace zel::host {
namespace {

TEST(TextPacket, IsReadByFlagAndReturnsItsEnvelopeWithTheLastReference) {
  // The fifth value is left over from earlier use.
  SttPacket packet{1572, 0, {}, {1024, 512, 32, 4}, {0, 5, 0xFFFFFFFF, 1ULL << 40, 99}, nullptr, nullptr};
  packet.field_values[0] = reinterpret_cast<std::uintptr_t>("hello");
  std::array<void*, 4> items{};
  PtrQueue queue{items.data(), 4, 3, 6, 0};
  std::uint32_t index_at_callback = 0;
  PacketRef ref{&packet, 0, 0, 2, &queue, nullptr, &index_at_callback};
  ref.release_callback = [](void* context, PacketRef* released) {
    *static_cast<std::uint32_t*>(context) = released->owner_queue->write_index;
  };
  {
    const TextPacket shared(&ref);
    EXPECT_EQ(shared.text(), "hello");
    EXPECT_EQ(shared.member_id(), 0xFFFFFFFFU);
    EXPECT_EQ(shared.timestamp_us(), 1ULL << 40);
    EXPECT_EQ(packet_field(packet, 8), std::nullopt);
    EXPECT_EQ(packet_field(packet, 0), std::nullopt) << "free slots hold nothing";
  }
  EXPECT_EQ(index_at_callback, 0U) << "there is one more reference";
  TextPacket last(&ref);
  static_cast<void>(TextPacket(std::move(last)));
  EXPECT_FALSE(last);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(last.text(), "");
  EXPECT_EQ(index_at_callback, 6U) << "called before the envelope is back";
  EXPECT_EQ(items[2], &ref) << "written at write index modulo capacity";
  release_packet(&ref);
  EXPECT_EQ(queue.write_index, 7U) << "a second release changes nothing";
}

}  // namespace
}  // namespace zel::host
