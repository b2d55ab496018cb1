// What a scan callback receives: the callback object counts its references
// and forwards deliveries; decoding what a hostile or broken daemon could
// deliver refuses wrong shapes, drops partial records and checks every slice.
#include <cstring>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "teskclient/result_decoding.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::vector<ObjectArg> Args(std::vector<Bytes>* buffers) {
  std::vector<ObjectArg> args(buffers->size());
  for (size_t i = 0; i < args.size(); ++i) {
    Bytes& b = (*buffers)[i];
    args[i].b = ObjectBuf{b.empty() ? nullptr : b.data(), b.size()};
  }
  return args;
}

TEST(ResultDecodingTest, NothingIsReadOutsideWhatWasDelivered) {
  // Wrong counts, or buffer 0 not exactly the header's (16) or the status's (4) size.
  const std::pair<uint32_t, size_t> bad[] = {
      {5, 16}, {OBJECT_COUNTS(4, 1, 0, 0), 16}, {4, 15}, {4, 17}, {4, 0}, {4, 4}, {5, 3}, {5, 8}};
  teskclient::DiscoveryResults discovery;
  teskclient::RangingResults ranging;
  for (const auto& [counts, first] : bad) {
    std::vector<Bytes> buffers = {Bytes(first), Bytes(160), {}, {}, {}};
    const std::vector<ObjectArg> args = Args(&buffers);
    EXPECT_FALSE(DecodeDiscoveryDelivery(args.data(), counts, &discovery)) << counts << first;
    EXPECT_FALSE(DecodeRangingDelivery(args.data(), counts, &ranging)) << counts << first;
  }
  EXPECT_FALSE(teskclient::DecodeDiscoveryDelivery(nullptr, 4, &discovery));

  constexpr size_t kRecord = sizeof(WifiScanMeasurement), kInfo = sizeof(WifiMeasurementInfo);
  std::vector<Bytes> buffers = {Bytes(16), Bytes(kRecord + 159, 0xAB), Bytes(kInfo + 63), {1, 2}};
  std::vector<ObjectArg> args = Args(&buffers);
  ASSERT_TRUE(teskclient::DecodeDiscoveryDelivery(args.data(), 4, &discovery));
  EXPECT_EQ(discovery.records.size() + discovery.infos.size(), 2u);
  EXPECT_EQ(discovery.records[0].bssidLo24, 0xABABABABu);
  EXPECT_EQ(discovery.pool, (Bytes{1, 2}));
  EXPECT_EQ(discovery.dropped_bytes, 159u + 63u);

  buffers = {Bytes(4), {}, {}, {}, {}};
  args = Args(&buffers);
  for (int i = 1; i < 5; ++i) args[i].b = ObjectBuf{nullptr, 4096};  // null, yet claims bytes
  ASSERT_TRUE(teskclient::DecodeRangingDelivery(args.data(), 5, &ranging));
  EXPECT_TRUE(ranging.records.empty() && ranging.pool.empty() && ranging.macs.empty());

  const std::vector<std::pair<uint32_t, uint32_t>> inside = {{0, 0}, {0, 10}, {9, 1}, {10, 0}};
  const std::vector<std::pair<uint32_t, uint32_t>> outside = {
      {10, 1}, {11, 0}, {5, 6}, {0xFFFFFFFF, 2}, {1, 0xFFFFFFFF}};
  ranging.pool.assign(10, 0x5A);
  for (bool valid : {true, false}) {
    for (const auto& [offset, length] : valid ? inside : outside) {
      const teskclient::PoolSlice slice = teskclient::SlicePool(ranging.pool, offset, length);
      EXPECT_EQ(slice.valid, valid) << offset << "+" << length;
      EXPECT_EQ(slice.size, valid ? length : 0u);
      EXPECT_TRUE(slice.size == 0 || slice.data == ranging.pool.data() + offset);
    }
  }

  ranging.infos.resize(3);
  ranging.macs.resize(2);
  WifiScanMeasurement r{};
  r.bytesOffset = 2, r.bytesLength = 4, r.elementAOffset = 6, r.elementALength = 4;
  r.firstInfoIndex = 1, r.infoCount = 2, r.firstMacIndex = 1, r.macCount = 1;
  teskclient::RecordParts parts = teskclient::PartsOf(ranging, r);
  EXPECT_TRUE(parts.bytes.valid && parts.element_a.valid && parts.element_b.valid &&
              parts.infos_valid && parts.macs_valid);
  EXPECT_EQ(parts.infos, ranging.infos.data() + 1);
  EXPECT_EQ(parts.macs, ranging.macs.data() + 1);
  r.elementBOffset = 9, r.elementBLength = 2, r.firstInfoIndex = 2;
  r.firstMacIndex = 0xFFFFFFFF, r.macCount = 2;  // wraps
  parts = teskclient::PartsOf(ranging, r);
  EXPECT_TRUE(parts.bytes.valid);
  EXPECT_FALSE(parts.element_b.valid || parts.infos_valid || parts.macs_valid);
  EXPECT_EQ(parts.info_count + parts.mac_count, 0u);

  memset(r.ssid, 'x', sizeof r.ssid);
  r.ssidLength = 4;
  EXPECT_TRUE(teskclient::SsidOf(r).empty()) << "not present";
  r.ssidPresent = 1;
  EXPECT_EQ(teskclient::SsidOf(r).size(), 4u);
  r.ssidLength = 500;
  EXPECT_EQ(teskclient::SsidOf(r).size(), 32u);
}

}  // namespace
