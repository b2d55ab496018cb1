#include "scan/pool_sizing.h"

namespace {

constexpr uint64_t kOne = 16;  // the unit of the per-measurement figures

uint64_t PerMeasurement(uint64_t total, uint32_t measurements) {
  return (total * kOne + measurements - 1) / measurements;
}

}  // namespace

void PoolSizing::Reserve(CommonResponseData& data, uint32_t measurements) const {
  // A block that cannot be had leaves the pool to grow as usual.
  data.infos.reserve(infos_each_.load(std::memory_order_relaxed) * measurements / kOne);
  data.bytes.reserve(bytes_each_.load(std::memory_order_relaxed) * measurements / kOne);
}

void PoolSizing::Learn(const CommonResponseData& data, uint32_t measurements) {
  if (measurements == 0) return;
  infos_each_.store(PerMeasurement(data.infos.getCount(), measurements), std::memory_order_relaxed);
  bytes_each_.store(PerMeasurement(data.bytes.getCount(), measurements), std::memory_order_relaxed);
}
