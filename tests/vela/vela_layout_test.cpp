// The layout of the location library's classes that the daemon relies on:
// whatever header the daemon is built against must pass these.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "ky_loc_fw/vela_client.h"

namespace ky_loc_fw {
namespace {

static_assert(std::is_standard_layout<VELAInfoElement>::value &&
                  offsetof(VELAInfoElement, id) == 0 && offsetof(VELAInfoElement, len) == 1 &&
                  offsetof(VELAInfoElement, data) == sizeof(void*),
              "an element: identifier, length, then the data pointer");
static_assert(std::is_standard_layout<VELAMeasurementDetail>::value &&
                  sizeof(VELAMeasurementDetail) == 64 &&
                  offsetof(VELAMeasurementDetail, infoValue32_3) == 8 &&
                  offsetof(VELAMeasurementDetail, unreadDetail) == 12 &&
                  offsetof(VELAMeasurementDetail, infoBlock) == 16 &&
                  offsetof(VELAMeasurementDetail, infoValue16_1) == 32 &&
                  offsetof(VELAMeasurementDetail, infoValue32_4) == 34 &&
                  offsetof(VELAMeasurementDetail, infoValue16_2) == 36 &&
                  offsetof(VELAMeasurementDetail, infoValue32_7) == 48 &&
                  offsetof(VELAMeasurementDetail, infoValue8_1) == 52 &&
                  offsetof(VELAMeasurementDetail, infoValue8_4) == 55 &&
                  offsetof(VELAMeasurementDetail, infoValue32_8) == 56 &&
                  offsetof(VELAMeasurementDetail, infoValue8_8) == 63,
              "the detail record's fields in declaration order");
static_assert(std::is_standard_layout<VELAMacAddress>::value && sizeof(VELAMacAddress) == 8 &&
                  std::is_standard_layout<VELASsid>::value,
              "embedded in measurements and arrays");
static_assert(sizeof(VELANodeInfo) == 56 && sizeof(VELAPeriodicNodeInfo) == 72,
              "the ranging targets' field widths");

// The slot of a virtual member function in its class's table of virtual
// operations, read from the Itanium C++ ABI's pointer to member function
// {ptr, adj}: ptr is 1 + the slot's byte offset, except on ARM, where ptr is
// the byte offset and the low bit of adj marks a virtual function. -1 when
// the function is not virtual.
template <typename F>
long VirtualSlot(F member) {
  struct {
    uintptr_t ptr;
    ptrdiff_t adj;
  } rep;
  static_assert(sizeof rep == sizeof member, "Itanium pointer to member function");
  std::memcpy(&rep, &member, sizeof rep);
#if defined(__arm__) || defined(__aarch64__)
  const bool is_virtual = (rep.adj & 1) != 0;
  const uintptr_t offset = rep.ptr;
#else
  const bool is_virtual = (rep.ptr & 1) != 0;
  const uintptr_t offset = rep.ptr - 1;
#endif
  return is_virtual ? static_cast<long>(offset / sizeof(void*)) : -1;
}

TEST(VelaLayout, ListenerDeliversThroughSlotZeroBeforeItsDestructors) {
  static_assert(std::has_virtual_destructor<VELAClientListener>::value, "");
  EXPECT_EQ(VirtualSlot(&VELAClientListener::responseReceived), 0);
}

// The array is a class of the library's interface: a table of virtual
// operations (the destructor), then the storage pointer, the capacity and the
// count, with nothing between them.
TEST(VelaLayout, ArrayHoldsItsBlockCapacityAndCountAfterTheVtable) {
  static_assert(std::has_virtual_destructor<vector<int>>::value, "");
  static_assert(sizeof(vector<int>) == 2 * sizeof(void*) + 8, "vptr, data, capacity, count");
  vector<int> array;
  array.push_back(7);
  unsigned char bytes[sizeof array];
  std::memcpy(bytes, static_cast<const void*>(&array), sizeof array);
  const int* data;
  uint32_t capacity;
  uint32_t count;
  std::memcpy(&data, bytes + sizeof(void*), sizeof data);
  std::memcpy(&capacity, bytes + 2 * sizeof(void*), 4);
  std::memcpy(&count, bytes + 2 * sizeof(void*) + 4, 4);
  EXPECT_EQ(data, array.getData());
  EXPECT_EQ(capacity, 64u);
  EXPECT_EQ(count, 1u);
}

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

  EXPECT_EQ(fields[32].offset, sizeof(VELAScanMeasurement));  // the beacon's own fields
  EXPECT_EQ(fields[34].offset, fields[32].offset + 16);       // follow 8 unread bytes

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
