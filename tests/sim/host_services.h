// The bridge table of the simulated host: every service as strict as its contract, every synchronization point a
// scheduling point, and every rule about who may call what and when checked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "zel_base_rtc_bridge.h"

namespace sim {

const BridgeTable& HostTable();

// A work area for the plug-in: at any address, filled with garbage, watched for writes behind its end.
class WorkArea {
 public:
  WorkArea(std::int32_t size, std::uint32_t misalignment);
  ~WorkArea();
  WorkArea(const WorkArea&) = delete;
  WorkArea& operator=(const WorkArea&) = delete;

  void* data() { return bytes_.data() + start_; }
  std::int32_t size() const { return size_; }

 private:
  const std::int32_t size_;
  const std::size_t start_;
  std::vector<std::uint8_t> bytes_;
};

}  // namespace sim
