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
#define AT(field) offsetof(VELAMeasurementDetail, field)
static_assert(std::is_standard_layout<VELAMeasurementDetail>::value &&
                  sizeof(VELAMeasurementDetail) == 64 && AT(infoValue32_3) == 8 &&
                  AT(unreadDetail) == 12 && AT(infoBlock) == 16 && AT(infoValue16_1) == 32 &&
                  AT(infoValue32_4) == 34 && AT(infoValue16_2) == 36 && AT(infoValue32_7) == 48 &&
                  AT(infoValue8_1) == 52 && AT(infoValue8_4) == 55 && AT(infoValue32_8) == 56 &&
                  AT(infoValue8_8) == 63,
              "the detail record's fields in declaration order");
#undef AT
static_assert(std::is_standard_layout<VELAMacAddress>::value && sizeof(VELAMacAddress) == 8 &&
                  std::is_standard_layout<VELASsid>::value,
              "embedded in measurements and arrays");
static_assert(sizeof(VELANodeInfo) == 56 && sizeof(VELAPeriodicNodeInfo) == 72,
              "the ranging targets' field widths");
static_assert(std::has_virtual_destructor<VELAClientListener>::value &&
                  std::has_virtual_destructor<vector<int>>::value,
              "both carry a table of virtual operations");

// The listener delivers through slot 0, before its destructors, as the
// Itanium C++ ABI's pointer to member function {ptr, adj} shows: ptr is 1 +
// the slot's byte offset, except on ARM, where ptr is the byte offset and the
// low bit of adj marks a virtual function. The array is its table of virtual
// operations, then the storage pointer, the capacity and the count, with
// nothing between them.
TEST(VelaLayout, ListenerSlotAndArrayLayout) {
  const auto deliver = &VELAClientListener::responseReceived;
  uintptr_t rep[2];  // ptr, adj
  static_assert(sizeof rep == sizeof deliver, "Itanium pointer to member function");
  std::memcpy(rep, &deliver, sizeof rep);
#if defined(__arm__) || defined(__aarch64__)
  EXPECT_TRUE(rep[0] == 0 && (rep[1] & 1) == 1) << rep[0] << " " << rep[1];
#else
  EXPECT_EQ(rep[0], 1u);
#endif
  struct {
    const void* vtable;
    const int* data;
    uint32_t capacity, count;
  } seen;
  static_assert(sizeof(vector<int>) == sizeof seen, "vptr, data, capacity, count");
  vector<int> array;
  array.push_back(7);
  std::memcpy(&seen, static_cast<const void*>(&array), sizeof seen);
  EXPECT_EQ(seen.data, array.getData());
  EXPECT_EQ(seen.capacity, 64u);
  EXPECT_EQ(seen.count, 1u);
}

template <typename C, typename M>
size_t At(const C& object, const M& member) {
  return static_cast<size_t>(reinterpret_cast<const char*>(&member) -
                             reinterpret_cast<const char*>(&object));
}

// The members' offsets in object, each checked to start after the previous
// one ends, in declaration order.
template <typename C, typename... M>
std::vector<size_t> InOrder(const C& object, const M&... members) {
  const std::vector<size_t> at = {At(object, members)...}, size = {sizeof(M)...};
  for (size_t i = 1; i < at.size(); ++i) EXPECT_GE(at[i], at[i - 1] + size[i - 1]) << "field " << i;
  return at;
}

TEST(VelaLayout, RecordFieldsFollowTheTablesAfterTheVtable) {
  VELAFullBeaconScanMeasurement m;
  const std::vector<size_t> at = InOrder(
      m, m.bssid, m.value32_2, m.unreadField3, m.value8_8, m.value8_9, m.value32_5, m.value32_6,
      m.ssid, m.value8_7, m.value8_3, m.details, m.value32_7, m.value8_1, m.value8_2, m.value32_3,
      m.value16_1, m.value16_2, m.value32_10, m.rawBytes, m.value16_3, m.value16_4, m.value8_4,
      m.value8_5, m.value8_6, m.elementA, m.elementB, m.unreadField26, m.value32_4, m.value32_8,
      m.value32_1, m.value32_9, m.value64, m.beaconTsf, m.unreadBeacon, m.informationElements);
  EXPECT_EQ(at[0], sizeof(void*));  // only the vtable comes first
  EXPECT_EQ(at[4], at[3] + 1);      // the two bytes of fields 3 and 4 are adjacent
  static_assert(sizeof m.unreadField26 == 8 && sizeof m.value64 == 8 && sizeof m.beaconTsf == 8 &&
                    sizeof m.unreadBeacon == 8 &&
                    sizeof(VELARangingScanMeasurement::unreadRanging) == 16 &&
                    sizeof(VELAPeriodicNodeInfo::nodeEnum1) == 4 &&
                    sizeof(VELAPeriodicNodeInfo::periodicByte) == 1,
                "field widths");
  EXPECT_EQ(at[32], sizeof(VELAScanMeasurement));  // the beacon's own fields
  EXPECT_EQ(at[34], at[32] + 16);                  // follow 8 unread bytes

  VELARangingScanMeasurement r;
  EXPECT_EQ(At(r, r.unreadRanging), sizeof(VELAScanMeasurement));
  EXPECT_EQ(At(r, r.macList), At(r, r.unreadRanging) + 16);

  // A discovery response's status sits between its word and its value.
  VELADiscoveryScanResponse d(1);
  EXPECT_EQ(sizeof(d.scanSource) + sizeof(d.scanStatus) + sizeof(d.scanTimestamp), 16u);
  EXPECT_EQ(At(d, d.scanStatus), At(d, d.scanSource) + 4);
  EXPECT_EQ(At(d, d.scanTimestamp), (At(d, d.scanStatus) + 4 + 7) / 8 * 8);
  VELARangingScanResponse rr(1);
  EXPECT_LT(At(rr, rr.scanStatus), At(rr, rr.measurements));
  EXPECT_LE(At(rr, rr.scanStatus), sizeof(VELAResponse));

  VELAPeriodicNodeInfo n;
  InOrder(n, n.mac, n.nodeValue1, n.nodeValue2, n.nodeValue3, n.nodeEnum1, n.peerMac, n.nodeEnum2,
          n.nodeEnum3, n.ftmsPerBurst, n.nodeEnum4, n.nodeByte1, n.nodeByte2, n.nodeValue4,
          n.maxBursts, n.periodicByte, n.periodicValue1, n.periodicValue2);
}

}  // namespace
}  // namespace ky_loc_fw
