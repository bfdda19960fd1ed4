#include "remote/statistics.h"

#include <algorithm>
#include <bit>

#include "wire.h"

namespace cpd::host {

// A value's bucket is given by its top kBits + 1 bits and the number of bits below them.
void Durations::Add(std::chrono::nanoseconds duration) {
  const auto value = static_cast<uint64_t>(std::max<int64_t>(duration.count(), 0));
  const auto width = static_cast<unsigned>(std::bit_width(value));
  const unsigned cut = width > kBits + 1 ? width - (kBits + 1) : 0;
  ++counts_[(uint64_t{cut} << kBits) + (value >> cut)];
  ++total_;
}

std::chrono::nanoseconds Durations::Quantile(double share) const {
  const auto rank = static_cast<uint64_t>(share * static_cast<double>(total_));
  uint64_t seen = 0;
  for (size_t i = 0; i < counts_.size(); ++i) {
    seen += counts_[i];
    if (seen <= rank) continue;
    const uint64_t cut = i < (2U << kBits) ? 0 : (i >> kBits) - 1;
    const uint64_t top = i - (cut << kBits);
    return std::chrono::nanoseconds((top << cut) + ((uint64_t{1} << cut) >> 1));
  }
  return {};
}

void Traffic::Count(uint16_t command, uint64_t packet_bytes) {
  bytes += packet_bytes;
  if (command == kFileRead || command == kSmallFileRead) read_bytes += packet_bytes;
}

Traffic TrafficOf(const Statistics& statistics) {
  Traffic traffic;
  for (const auto& [command, counters] : statistics) {
    traffic.requests += counters.requests;
    traffic.Count(command, counters.bytes);
  }
  return traffic;
}

}  // namespace cpd::host
