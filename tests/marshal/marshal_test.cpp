// Byte-exact records from library measurements with chosen values: every
// field at its wire offset, the pools and how records refer to them, and the
// vendor-element extension.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ky_loc_fw/vela_measurement.h"
#include "ky_loc_fw/vela_test_control.h"
#include "scan/marshal.h"
#include "scan/vendor_oui.h"

namespace {

using ky_loc_fw::VELAFullBeaconScanMeasurement;
using ky_loc_fw::VELAInfoElement;
using ky_loc_fw::VELAMeasurementDetail;
using ky_loc_fw::VELARangingScanMeasurement;
using ky_loc_fw::VELAScanMeasurement;
using Bytes = std::vector<uint8_t>;

// Writes a little-endian value at an explicit offset, so that a test does not
// lean on the struct it checks.
void Put(Bytes& record, std::size_t offset, int width, uint64_t value) {
  for (int i = 0; i < width; ++i) record[offset + i] = static_cast<uint8_t>(value >> (8 * i));
}

// The wire bytes of a whole array.
template <typename T>
Bytes Raw(const ky_loc_fw::vector<T>& array) {
  const auto* p = reinterpret_cast<const uint8_t*>(array.getData());
  return Bytes(p, p + sizeof(T) * array.getCount());
}

Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

VELAInfoElement* Element(uint8_t id, const Bytes& data) {
  return new VELAInfoElement(id, data.data(), static_cast<uint8_t>(data.size()));
}

Bytes VendorData(const uint8_t* oui, std::size_t length) {
  Bytes data(length);
  for (std::size_t i = 0; i < length; ++i) data[i] = static_cast<uint8_t>(0x40 + i);
  std::memcpy(data.data(), oui, 3);
  return data;
}

// One library field set on a measurement with one detail, all else zero: the
// record (or the detail's record) is all zero but for that field at its wire
// offset, cut to its wire width.
struct FieldCase {
  const char* name;
  bool in_detail;
  std::size_t offset;
  int width;
  uint64_t value;
  void (*set)(VELAScanMeasurement*, uint64_t);
};

// clang-format off
#define SET(lhs, v) lhs = static_cast<decltype(lhs)>(v)
#define M(f, o, w, v) {#f, false, o, w, v, [](VELAScanMeasurement* m, uint64_t x) { SET(m->f, x); }}
#define D(f, o, w, v) \
  {#f, true, o, w, v, [](VELAScanMeasurement* m, uint64_t x) { SET(m->details[0]->f, x); }}
// clang-format on

TEST(MarshalTest, EachLibraryFieldLandsAtItsOffsetAndNowhereElse) {
  const uint32_t k32 = 0xA1B2C3D4;
  // clang-format off
  const FieldCase cases[] = {
      {"bssid.lo24", false, 0, 4, 0xD4E5F6,
       [](VELAScanMeasurement* m, uint64_t v) { m->bssid.setMac(0, static_cast<int>(v)); }},
      {"bssid.hi24", false, 4, 4, 0xA1B2C3,
       [](VELAScanMeasurement* m, uint64_t v) { m->bssid.setMac(static_cast<int>(v), 0); }},
      M(value64, 8, 8, 0x0102030405060708), M(value32_1, 16, 4, k32), M(value32_2, 20, 4, k32),
      M(value32_3, 24, 4, k32), M(value32_4, 28, 4, k32), M(value32_5, 32, 4, k32),
      M(value32_6, 36, 4, k32), M(value32_7, 40, 4, k32), M(value32_8, 44, 4, k32),
      M(value32_9, 48, 4, k32), M(value32_10, 52, 4, k32), M(value16_1, 56, 2, 0xBEEF),
      M(value16_2, 58, 2, 0xBEEF), M(value16_3, 110, 2, 0xBEEF), M(value16_4, 112, 2, 0xBEEF),
      M(value8_1, 150, 1, 0x5A), M(value8_2, 151, 1, 0x5A), M(value8_3, 152, 1, 0x5A),
      M(value8_4, 153, 1, 0x5A), M(value8_5, 154, 1, 0x5A), M(value8_6, 155, 1, 0x5A),
      M(value8_7, 156, 1, 0x5A), M(value8_8, 157, 1, 0x5A), M(value8_9, 158, 1, 0x5A),
      M(unreadField3, 0, 0, 0xFFFFFFFF), M(unreadField26, 0, 0, ~0ull),  // not read
      D(infoValue32_1, 0, 4, k32), D(infoValue32_2, 4, 4, k32), D(infoValue32_3, 8, 4, k32),
      D(infoValue32_4, 12, 4, 0xBEEF), D(infoValue16_1, 32, 2, 0xBEEF),
      D(infoValue16_2, 34, 2, 0x12345678),  // a 32-bit library field: its low 16 bits
      D(infoValue32_5, 36, 4, k32), D(infoValue32_6, 40, 4, k32), D(infoValue32_7, 44, 4, k32),
      D(infoValue8_1, 48, 1, 0x5A), D(infoValue8_2, 49, 1, 0x5A), D(infoValue8_3, 50, 1, 0x5A),
      D(infoValue8_4, 51, 1, 0x5A), D(infoValue32_8, 52, 4, k32), D(infoValue8_5, 56, 1, 0x5A),
      D(infoValue8_6, 57, 1, 0x5A), D(infoValue8_7, 58, 1, 0x5A), D(infoValue8_8, 59, 1, 0x5A),
      D(unreadDetail, 0, 0, 0xFFFFFFFF),
      {"infoBlock", true, 24, 8, 0x0102030405060708, [](VELAScanMeasurement* m, uint64_t v) {
         std::memcpy(m->details[0]->infoBlock + 8, &v, sizeof v); }},
  };
  // clang-format on
  for (const FieldCase& c : cases) {
    SCOPED_TRACE(c.name);
    VELAScanMeasurement m;
    m.details.push_back(new VELAMeasurementDetail());
    c.set(&m, c.value);
    CommonResponseData out;
    MarshalCommon(out, &m);
    Bytes record(160), detail(64);
    Put(record, 62, 2, 1);  // infoCount
    Put(c.in_detail ? detail : record, c.offset, c.width, c.value);
    EXPECT_EQ(Raw(out.measurements), record);
    EXPECT_EQ(Raw(out.infos), detail);
  }
}

TEST(MarshalTest, SsidStates) {
  struct SsidCase {
    const char* name;
    std::string bytes;
    int length;  // as stored, bypassing the library's checks
    uint8_t valid, ssidValid, ssidPresent;
    uint16_t ssidLength;
  };
  const std::string full(32, 'x');
  const SsidCase cases[] = {
      {"invalid", "", 0, false, 0, 0, 0},       {"invalid with bytes", "abc", 3, false, 0, 0, 0},
      {"hidden network", "", 0, true, 1, 1, 0}, {"plain", "home", 4, true, 1, 1, 4},
      {"32 bytes", full, 32, true, 1, 1, 32},   {"getSSID fails", full, 33, true, 1, 0, 0},
  };
  for (const SsidCase& c : cases) {
    SCOPED_TRACE(c.name);
    VELAScanMeasurement m;
    ky_loc_fw::vela_test::SsidAccess::Set(
        &m.ssid, reinterpret_cast<const unsigned char*>(c.bytes.data()), c.length, c.valid);
    CommonResponseData out;
    MarshalCommon(out, &m);
    const WifiScanMeasurement& rec = out.measurements[0];
    EXPECT_EQ(rec.ssidValid, c.ssidValid);
    EXPECT_EQ(rec.ssidPresent, c.ssidPresent);
    EXPECT_EQ(rec.ssidLength, c.ssidLength);
    Bytes ssid(32, 0);
    if (c.ssidPresent) std::memcpy(ssid.data(), c.bytes.data(), c.ssidLength);
    EXPECT_EQ(Bytes(rec.ssid, rec.ssid + 32), ssid);
  }
}

TEST(MarshalTest, DetailCountIsCutToSixteenBits) {
  VELAScanMeasurement m;
  for (uint32_t i = 0; i < 70000; ++i) m.details.push_back(new VELAMeasurementDetail());
  m.details[4463]->infoValue32_1 = 4463;
  CommonResponseData out;
  MarshalCommon(out, &m);
  EXPECT_EQ(out.measurements[0].infoCount, 4464);
  ASSERT_EQ(out.infos.getCount(), 4464u);
  EXPECT_EQ(out.infos[4463].infoValue32_1, 4463u);
}

TEST(MarshalTest, VendorElementExtension) {
  const uint8_t other_oui[3] = {0x00, 0x50, 0xF2};
  struct IeCase {
    const char* name;
    uint8_t id;
    const uint8_t* oui;
    std::size_t length;
    bool extended;
  };
  const IeCase cases[] = {
      {"own, 25", 221, kVendorOui, 25, true},   {"own, 254", 221, kVendorOui, 254, true},
      {"own, 24", 221, kVendorOui, 24, false},  {"own, 255", 221, kVendorOui, 255, false},
      {"other OUI", 221, other_oui, 30, false}, {"not vendor", 220, kVendorOui, 30, false},
  };
  for (const IeCase& c : cases) {
    SCOPED_TRACE(c.name);
    VELAFullBeaconScanMeasurement m;
    m.beaconTsf = 0x1122334455667788;
    const Bytes data = VendorData(c.oui, c.length);
    m.informationElements.push_back(Element(c.id, data));
    CommonResponseData out;
    MarshalFullBeacon(out, &m);
    Bytes expected = Concat({{c.id, static_cast<uint8_t>(c.length + c.extended)}, data});
    if (c.extended) expected.push_back(0x88);
    EXPECT_EQ(Raw(out.bytes), expected);
    EXPECT_EQ(out.measurements[0].beaconIesOffset, 0u);
    EXPECT_EQ(out.measurements[0].beaconIesLength, expected.size());
  }
}

// Bytes, element B (an absent element A is offset 0, length 0) and the
// beacon's elements go to the byte pool after what it already holds, in
// order, null entries skipped.
TEST(MarshalTest, OneBeaconInTheBytePool) {
  VELAFullBeaconScanMeasurement m;
  m.beaconTsf = 0xAB;
  for (signed char c : {-1, 2}) m.rawBytes.push_back(c);
  m.elementB = Element(45, {0xAA});
  for (VELAInfoElement* e : {Element(0, {'a', 'p'}), static_cast<VELAInfoElement*>(nullptr),
                             Element(221, VendorData(kVendorOui, 25)),
                             static_cast<VELAInfoElement*>(nullptr), Element(3, {})}) {
    m.informationElements.push_back(e);
  }
  CommonResponseData out;
  out.bytes.push_back(0x77);
  MarshalFullBeacon(out, &m);
  const WifiScanMeasurement& rec = out.measurements[0];
  EXPECT_EQ(rec.bytesOffset, 1u);
  EXPECT_EQ(rec.bytesLength, 2u);
  EXPECT_EQ(rec.elementAOffset, 0u);
  EXPECT_EQ(rec.elementALength, 0u);
  EXPECT_EQ(rec.elementBOffset, 3u);
  EXPECT_EQ(rec.elementBLength, 3u);
  EXPECT_EQ(rec.beaconIesOffset, 6u);
  EXPECT_EQ(rec.beaconIesLength, 4u + 28u + 2u);
  EXPECT_EQ(Raw(out.bytes), Concat({{0x77, 0xFF, 2, 45, 1, 0xAA, 0, 2, 'a', 'p', 221, 26},
                                    VendorData(kVendorOui, 25),
                                    {0xAB, 3, 0}}));
}

// Records are consecutive, every index into a pool continues where the
// previous measurement left off, and MAC lists go to the address pool in order.
TEST(MarshalTest, PoolsContinueAcrossMeasurements) {
  VELAFullBeaconScanMeasurement beacon;
  VELARangingScanMeasurement ranging1, ranging2;
  auto fill = [](VELAScanMeasurement* m, int n) {
    for (int i = 0; i < n; ++i) m->details.push_back(new VELAMeasurementDetail());
    for (int i = 0; i < n; ++i) m->rawBytes.push_back(1);
  };
  fill(&beacon, 2);
  fill(&ranging1, 1);
  beacon.informationElements.push_back(Element(0, {'x'}));
  ranging1.macList.push_back(ky_loc_fw::vela_test::MakeMac(0x001122, 0x334455));
  ranging1.macList.push_back(ky_loc_fw::vela_test::MakeMac(0x66, 0x77));
  ranging2.macList.push_back(ky_loc_fw::vela_test::MakeMac(0xABCDEF, 0x012345));
  RangingData out;
  MarshalFullBeacon(out, &beacon);
  MarshalRanging(out, &ranging1);
  MarshalRanging(out, &ranging2);
  ASSERT_EQ(out.measurements.getCount(), 3u);
  const WifiScanMeasurement* rec = out.measurements.getData();
  EXPECT_EQ(rec[0].macCount, 0u);
  EXPECT_EQ(rec[0].beaconIesOffset, 2u);
  EXPECT_EQ(rec[1].firstInfoIndex, 2);
  EXPECT_EQ(rec[1].bytesOffset, 2u + 3u);
  EXPECT_EQ(rec[1].firstMacIndex, 0u);
  EXPECT_EQ(rec[1].macCount, 2u);
  EXPECT_EQ(rec[2].firstInfoIndex, 3);
  EXPECT_EQ(rec[2].bytesOffset, 6u);
  EXPECT_EQ(rec[2].firstMacIndex, 2u);
  EXPECT_EQ(rec[2].macCount, 1u);
  EXPECT_EQ(Raw(out.macs), (Bytes{0x55, 0x44, 0x33, 0, 0x22, 0x11, 0,    0, 0x77, 0,    0,    0,
                                  0x66, 0,    0,    0, 0x45, 0x23, 0x01, 0, 0xEF, 0xCD, 0xAB, 0}));
}

}  // namespace
