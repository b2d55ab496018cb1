#include "tests/soak/scan_plans.h"

namespace tesk_soak {

teskclient::EncodedDiscoveryScan RandomDiscoveryScan(std::minstd_rand& random) {
  teskclient::DiscoveryScanPlan plan;
  plan.params.timeout = 2000;
  plan.params.mode = static_cast<uint32_t>(random() % 4);
  plan.params.band = static_cast<uint32_t>(random() % 3);
  plan.params.fallback_param = 2;
  plan.params.scan_flag = static_cast<uint8_t>(random() % 2);
  plan.params.cache_flag = static_cast<uint8_t>(random() % 2);
  if (random() % 3 == 0) plan.channels = {1, 6, 11, 36, 64, 149};
  if (random() % 4 == 0) plan.ssids = {{'h', 'o', 'm', 'e'}};
  if (random() % 4 == 0) plan.bssids = {{0x00, 0x0d, 0x58, 0xef, 0x88, 0x09}};
  teskclient::EncodedDiscoveryScan encoded;
  std::string error;
  teskclient::EncodeDiscoveryScan(plan, &encoded, &error);
  return encoded;
}

teskclient::EncodedRangingScan RangingScan(size_t targets, bool periodic) {
  teskclient::RangingScanPlan plan;
  plan.periodic = periodic;
  plan.ts = 1;
  plan.targets.resize(targets);
  for (size_t i = 0; i < targets; ++i) {
    plan.targets[i].mac = {0x02,
                           0x00,
                           static_cast<uint8_t>(i >> 24),
                           static_cast<uint8_t>(i >> 16),
                           static_cast<uint8_t>(i >> 8),
                           static_cast<uint8_t>(i)};
  }
  return teskclient::EncodeRangingScan(plan);
}

}  // namespace tesk_soak
