// The layout of the library's classes that the daemon's marshalling relies on.
#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

#include "ky_loc_fw/vela_client.h"

namespace ky_loc_fw {
namespace {

template <typename C, typename M>
size_t OffsetIn(const C& object, const M& member) {
  return static_cast<size_t>(reinterpret_cast<const char*>(&member) -
                             reinterpret_cast<const char*>(&object));
}

struct Field {
  size_t offset;
  size_t size;
};
template <typename C, typename M>
Field F(const C& object, const M& member) {
  return Field{OffsetIn(object, member), sizeof member};
}

// Each field starts after the previous one ends, in declaration order.
std::vector<Field> ExpectInOrder(std::vector<Field> fields) {
  for (size_t i = 1; i < fields.size(); ++i) {
    EXPECT_GE(fields[i].offset, fields[i - 1].offset + fields[i - 1].size) << "field " << i;
  }
  return fields;
}

TEST(VelaLayout, ScanMeasurementFieldsFollowTheTableAfterTheVtable) {
  VELAFullBeaconScanMeasurement m;
  // clang-format off
  const std::vector<Field> fields = ExpectInOrder({
      F(m, m.bssid), F(m, m.value32_2), F(m, m.unreadField3), F(m, m.value8_8), F(m, m.value8_9),
      F(m, m.value32_5), F(m, m.value32_6), F(m, m.ssid), F(m, m.value8_7), F(m, m.value8_3),
      F(m, m.details), F(m, m.value32_7), F(m, m.value8_1), F(m, m.value8_2), F(m, m.value32_3),
      F(m, m.value16_1), F(m, m.value16_2), F(m, m.value32_10), F(m, m.rawBytes), F(m, m.value16_3),
      F(m, m.value16_4), F(m, m.value8_4), F(m, m.value8_5), F(m, m.value8_6), F(m, m.elementA),
      F(m, m.elementB), F(m, m.unreadField26), F(m, m.value32_4), F(m, m.value32_8),
      F(m, m.value32_1), F(m, m.value32_9), F(m, m.value64), F(m, m.beaconTsf),
      F(m, m.unreadBeacon), F(m, m.informationElements)});
  // clang-format on
  EXPECT_EQ(fields.front().offset, sizeof(void*));    // only the vtable comes first
  EXPECT_EQ(fields[4].offset, fields[3].offset + 1);  // the two bytes of field 4 are adjacent
  for (size_t i : {26u, 31u, 32u, 33u}) EXPECT_EQ(fields[i].size, 8u) << "field " << i;

  VELARangingScanMeasurement r;
  EXPECT_EQ(OffsetIn(r, r.unreadRanging), sizeof(VELAScanMeasurement));
  EXPECT_EQ(sizeof(r.unreadRanging), 16u);
  EXPECT_EQ(OffsetIn(r, r.macList), OffsetIn(r, r.unreadRanging) + 16);
}

TEST(VelaLayout, ResponseStatusSitsBetweenItsWordAndItsValue) {
  VELADiscoveryScanResponse d(1);
  EXPECT_EQ(OffsetIn(d, d.scanStatus), OffsetIn(d, d.scanSource) + 4);
  EXPECT_EQ(OffsetIn(d, d.scanTimestamp), (OffsetIn(d, d.scanStatus) + 4 + 7) / 8 * 8);
  EXPECT_EQ(sizeof(d.scanSource) + sizeof(d.scanStatus) + sizeof(d.scanTimestamp), 16u);

  VELARangingScanResponse r(1);
  EXPECT_LT(OffsetIn(r, r.scanStatus), OffsetIn(r, r.measurements));
  EXPECT_LE(OffsetIn(r, r.scanStatus), sizeof(VELAResponse));
}

TEST(VelaLayout, NodeFieldsFollowTheTargetRecordOrder) {
  VELAPeriodicNodeInfo n;
  ExpectInOrder({F(n, n.mac), F(n, n.nodeValue1), F(n, n.nodeValue2), F(n, n.nodeValue3),
                 F(n, n.nodeEnum1), F(n, n.peerMac), F(n, n.nodeEnum2), F(n, n.nodeEnum3),
                 F(n, n.ftmsPerBurst), F(n, n.nodeEnum4), F(n, n.nodeByte1), F(n, n.nodeByte2),
                 F(n, n.nodeValue4), F(n, n.maxBursts), F(n, n.periodicByte),
                 F(n, n.periodicValue1), F(n, n.periodicValue2)});
  EXPECT_EQ(sizeof(n.nodeEnum1), 4u);
  EXPECT_EQ(sizeof(n.periodicByte), 1u);
}

}  // namespace
}  // namespace ky_loc_fw
