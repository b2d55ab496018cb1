// Decoding of delivered buffers that a hostile or broken daemon could send:
// wrong shapes are refused, odd sizes drop partial records, and every
// pooled slice a record names is checked before it is handed out.
#include "teskclient/result_decoding.h"

#include <cstring>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using teskclient::DiscoveryResults;
using teskclient::RangingResults;
using Bytes = std::vector<uint8_t>;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

template <typename T>
Bytes AsBytes(const std::vector<T>& records) {
  Bytes bytes(records.size() * sizeof(T));
  if (!bytes.empty()) memcpy(bytes.data(), records.data(), bytes.size());
  return bytes;
}

// Buffers of a delivery, kept alive for the ObjectArgs pointing into them.
struct Delivery {
  std::vector<Bytes> buffers;
  std::vector<ObjectArg> args;

  explicit Delivery(std::vector<Bytes> b) : buffers(std::move(b)) {
    for (Bytes& buffer : buffers) {
      ObjectArg arg;
      arg.b = ObjectBuf{buffer.empty() ? nullptr : buffer.data(), buffer.size()};
      args.push_back(arg);
    }
  }
};

Bytes Header(int32_t status) {
  DiscoveryResponseHeader header{77, 1, status};
  return AsBytes(std::vector<DiscoveryResponseHeader>{header});
}

TEST(ResultDecodingTest, WrongShapesAreRefused) {
  struct Case {
    const char* name;
    bool ranging;
    uint32_t counts;
    Bytes first;
  } cases[] = {
      {"discovery with counts 5", false, 5, Header(0)},
      {"discovery with an output buffer", false, OBJECT_COUNTS(4, 1, 0, 0), Header(0)},
      {"15-byte header", false, 4, Bytes(15)},
      {"17-byte header", false, 4, Bytes(17)},
      {"no header at all", false, 4, Bytes()},
      {"ranging with counts 4", true, 4, Bytes(4)},
      {"3-byte status", true, 5, Bytes(3)},
      {"8-byte status", true, 5, Bytes(8)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Delivery delivery({c.first, Bytes(160), Bytes(), Bytes(), Bytes()});
    if (c.ranging) {
      RangingResults results;
      EXPECT_FALSE(teskclient::DecodeRangingDelivery(delivery.args.data(), c.counts, &results));
    } else {
      DiscoveryResults results;
      EXPECT_FALSE(teskclient::DecodeDiscoveryDelivery(delivery.args.data(), c.counts, &results));
    }
  }
  DiscoveryResults results;
  EXPECT_FALSE(teskclient::DecodeDiscoveryDelivery(nullptr, 4, &results));
}

TEST(ResultDecodingTest, PartialRecordsAreDroppedAndCounted) {
  WifiScanMeasurement record{};
  record.bssidLo24 = 0x123456;
  Bytes records = AsBytes(std::vector<WifiScanMeasurement>{record});
  records.resize(160 + 159, 0xAB);
  Delivery delivery({Header(0), records, Bytes(64 + 63), Bytes{1, 2, 3}});
  DiscoveryResults results;
  ASSERT_TRUE(teskclient::DecodeDiscoveryDelivery(delivery.args.data(), 4, &results));
  ASSERT_EQ(results.records.size(), 1u);
  EXPECT_EQ(results.records[0].bssidLo24, 0x123456u);
  EXPECT_EQ(results.infos.size(), 1u);
  EXPECT_THAT(results.pool, ElementsAre(1, 2, 3));
  EXPECT_EQ(results.dropped_bytes, 159u + 63u);
  EXPECT_EQ(results.header.scanStatus, 0);
  EXPECT_EQ(results.header.response_value, 77u);
}

TEST(ResultDecodingTest, NullPointersWithSizesReadAsEmpty) {
  Delivery delivery({Bytes(4), Bytes(), Bytes(), Bytes(), Bytes()});
  // A broken peer: null pointers that claim bytes.
  for (int i = 1; i < 5; ++i) delivery.args[i].b = ObjectBuf{nullptr, 4096};
  RangingResults results;
  ASSERT_TRUE(teskclient::DecodeRangingDelivery(delivery.args.data(), 5, &results));
  EXPECT_THAT(results.records, IsEmpty());
  EXPECT_THAT(results.pool, IsEmpty());
  EXPECT_THAT(results.macs, IsEmpty());
}

TEST(ResultDecodingTest, PoolSlicesAreCheckedAgainstWhatWasDelivered) {
  struct Case {
    const char* name;
    uint32_t offset;
    uint32_t length;
    bool valid;
    size_t size;
  } cases[] = {
      {"empty at 0", 0, 0, true, 0},
      {"whole pool", 0, 10, true, 10},
      {"last byte", 9, 1, true, 1},
      {"empty at the end", 10, 0, true, 0},
      {"one past the end", 10, 1, false, 0},
      {"offset past the end", 11, 0, false, 0},
      {"length past the end", 5, 6, false, 0},
      {"wrapping sum", 0xFFFFFFFF, 2, false, 0},
      {"huge length", 1, 0xFFFFFFFF, false, 0},
  };
  const std::vector<uint8_t> pool(10, 0x5A);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const teskclient::PoolSlice slice = teskclient::SlicePool(pool, c.offset, c.length);
    EXPECT_EQ(slice.valid, c.valid);
    EXPECT_EQ(slice.size, c.size);
    if (slice.size != 0) {
      EXPECT_EQ(slice.data, pool.data() + c.offset);
    }
  }
}

TEST(ResultDecodingTest, RecordPartsNeverPointOutsideThePools) {
  RangingResults results;
  results.pool.assign(20, 1);
  results.infos.resize(3);
  results.macs.resize(2);

  WifiScanMeasurement good{};
  good.bytesOffset = 2, good.bytesLength = 4;
  good.elementAOffset = 6, good.elementALength = 3;
  good.beaconIesOffset = 9, good.beaconIesLength = 11;
  good.firstInfoIndex = 1, good.infoCount = 2;
  good.firstMacIndex = 1, good.macCount = 1;
  const teskclient::RecordParts parts = teskclient::PartsOf(results, good);
  EXPECT_TRUE(parts.bytes.valid && parts.element_a.valid && parts.element_b.valid &&
              parts.ies.valid && parts.infos_valid && parts.macs_valid);
  EXPECT_EQ(parts.element_b.size, 0u);
  EXPECT_EQ(parts.infos, results.infos.data() + 1);
  EXPECT_EQ(parts.info_count, 2u);
  EXPECT_EQ(parts.macs, results.macs.data() + 1);

  WifiScanMeasurement bad = good;
  bad.elementBOffset = 19, bad.elementBLength = 2;
  bad.firstInfoIndex = 2, bad.infoCount = 2;
  bad.firstMacIndex = 0xFFFFFFFF, bad.macCount = 2;
  const teskclient::RecordParts bad_parts = teskclient::PartsOf(results, bad);
  EXPECT_TRUE(bad_parts.bytes.valid);
  EXPECT_FALSE(bad_parts.element_b.valid);
  EXPECT_EQ(bad_parts.element_b.data, nullptr);
  EXPECT_FALSE(bad_parts.infos_valid);
  EXPECT_EQ(bad_parts.info_count, 0u);
  EXPECT_FALSE(bad_parts.macs_valid);
  EXPECT_EQ(bad_parts.mac_count, 0u);
}

TEST(ResultDecodingTest, SsidIsBoundedByItsField) {
  WifiScanMeasurement record{};
  memset(record.ssid, 'x', sizeof record.ssid);
  record.ssidLength = 4;
  EXPECT_THAT(teskclient::SsidOf(record), IsEmpty()) << "not present";
  record.ssidPresent = 1;
  EXPECT_EQ(teskclient::SsidOf(record).size(), 4u);
  record.ssidLength = 500;
  EXPECT_EQ(teskclient::SsidOf(record).size(), 32u);
}

}  // namespace
