// Byte-exact records from library measurements with chosen values: every
// field and SSID state at its wire offset, the pools and how records refer to
// them, the vendor-element extension, and, through a replacement of the
// non-throwing array new in this binary, blocks that cannot be had.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "ky_loc_fw/vela_measurement.h"
#include "ky_loc_fw/vela_test_control.h"
#include "scan/marshal.h"
#include "scan/vendor_oui.h"

static int fail_at = 0;  // when set, the fail_at-th non-throwing array new from now returns null

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  if (fail_at > 0 && --fail_at == 0) return nullptr;
  try {  // the throwing form keeps the sanitizers' new/delete pairing
    return ::operator new[](size);
  } catch (...) {
    return nullptr;
  }
}

namespace {

using ky_loc_fw::VELAInfoElement;
using ky_loc_fw::VELAMeasurementDetail;
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

VELAInfoElement* Element(uint8_t id, const Bytes& data) {
  return new VELAInfoElement(id, data.data(), static_cast<uint8_t>(data.size()));
}

Bytes VendorData(const uint8_t* oui, std::size_t length) {
  Bytes data(length, 0x40);
  std::memcpy(data.data(), oui, 3);
  return data;
}

// One library field set on a measurement with one detail, all else zero: the
// record (or the detail's record) is all zero but for that field at its wire
// offset, cut to its wire width.
using FieldCase = std::tuple<const char*, bool, std::size_t, int, uint64_t,
                             void (*)(VELAScanMeasurement*, uint64_t)>;

// The SSID as stored, whatever the library's own checks would allow.
void SetSsid(VELAScanMeasurement* m, std::string bytes, int length, bool valid) {
  bytes.resize(32);
  ky_loc_fw::vela_test::SsidAccess::Set(
      &m->ssid, reinterpret_cast<const unsigned char*>(bytes.data()), length, valid);
}

// clang-format off
#define SET(lhs, v) lhs = static_cast<decltype(lhs)>(v)
#define M(f, o, w, v) {#f, false, o, w, v, [](VELAScanMeasurement* m, uint64_t x) { SET(m->f, x); }}
#define D(f, o, w, v) \
  {#f, true, o, w, v, [](VELAScanMeasurement* m, uint64_t x) { SET(m->details[0]->f, x); }}
#define S(n, o, w, v, ...) {n, false, o, w, v, [](VELAScanMeasurement* m, uint64_t) { SetSsid(m, __VA_ARGS__); }}
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
      // SSIDs: ssidValid, ssidPresent, ssidLength, bytes copied only when getSSID succeeds
      S("invalid SSID", 0, 0, 0, "abc", 3, false), S("hidden SSID", 114, 2, 0x0101, "", 0, true),
      S("SSID", 114, 8, 0x656D6F6800040101, "home", 4, true),
      S("unreadable SSID", 114, 1, 1, "home", 33, true),
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
  for (const auto& [name, in_detail, offset, width, value, set] : cases) {
    SCOPED_TRACE(name);
    VELAScanMeasurement m;
    m.details.push_back(new VELAMeasurementDetail());
    set(&m, value);
    CommonResponseData out;
    MarshalCommon(out, &m);
    Bytes record(160), detail(64);
    Put(record, 62, 2, 1);  // infoCount
    Put(in_detail ? detail : record, offset, width, value);
    EXPECT_EQ(Raw(out.measurements), record);
    EXPECT_EQ(Raw(out.infos), detail);
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

// The byte pool after what it held: raw bytes, element B (an absent A is offset 0,
// length 0), then the beacon's elements in order, null entries skipped and own vendor
// elements of 25 to 254 bytes extended by the beacon byte. The next measurement's
// indexes into every pool continue where the beacon's left off.
TEST(MarshalTest, PoolsAndVendorExtension) {
  const uint8_t other_oui[3] = {0x00, 0x50, 0xF2};
  const std::tuple<uint8_t, const uint8_t*, std::size_t, bool> elements[] = {
      {221, kVendorOui, 25, true},   {221, kVendorOui, 254, true}, {221, kVendorOui, 24, false},
      {221, kVendorOui, 255, false}, {221, other_oui, 30, false},  {220, kVendorOui, 30, false}};
  ky_loc_fw::VELAFullBeaconScanMeasurement beacon;
  beacon.beaconTsf = 0x1122334455667788;
  for (signed char c : {-1, 2}) beacon.rawBytes.push_back(c);
  for (int i = 0; i < 2; ++i) beacon.details.push_back(new VELAMeasurementDetail());
  beacon.elementB = Element(45, {0xAA});
  beacon.informationElements.push_back(nullptr);
  Bytes expected{0x77, 0xFF, 2, 45, 1, 0xAA};
  for (const auto& [id, oui, length, extended] : elements) {
    const Bytes data = VendorData(oui, length);
    beacon.informationElements.push_back(Element(id, data));
    expected.insert(expected.end(), {id, static_cast<uint8_t>(length + extended)});
    expected.insert(expected.end(), data.begin(), data.end());
    if (extended) expected.push_back(0x88);
  }
  ky_loc_fw::VELARangingScanMeasurement ranging;
  ranging.rawBytes.push_back(3);
  ranging.macList.push_back(ky_loc_fw::vela_test::MakeMac(0x001122, 0x334455));
  RangingData out;
  out.bytes.push_back(0x77);
  out.macs.push_back({});
  MarshalFullBeacon(out, &beacon);
  MarshalRanging(out, &ranging);

  const WifiScanMeasurement* rec = out.measurements.getData();
  EXPECT_EQ(std::make_tuple(rec[0].bytesOffset, rec[0].bytesLength, rec[0].elementAOffset,
                            rec[0].elementALength, rec[0].elementBOffset, rec[0].elementBLength,
                            rec[0].beaconIesOffset, rec[0].beaconIesLength, rec[0].macCount),
            std::make_tuple(1u, 2u, 0u, 0u, 3u, 3u, 6u, expected.size() - 6, 0u));
  expected.push_back(3);
  EXPECT_EQ(Raw(out.bytes), expected);
  EXPECT_EQ(std::make_tuple(rec[1].firstInfoIndex, rec[1].bytesOffset, rec[1].firstMacIndex,
                            rec[1].macCount, out.macs[1].lo24, out.macs[1].hi24),
            std::make_tuple(2, expected.size() - 1, 1u, 1u, 0x334455u, 0x001122u));
}

// Each block marshalling asks for is refused in turn (the pool holds 40 bytes first, so
// that its blocks are grown ones). A bulk block that is refused gives way to pushes one at a
// time, which land where the bulk would have; only the record's own push, if refused, loses
// what it held.
TEST(MarshalTest, ARefusedBlockCostsOnlyWhatAPushCouldNotStore) {
  ky_loc_fw::VELAFullBeaconScanMeasurement beacon;
  for (int i = 0; i < 3; ++i) beacon.details.push_back(new VELAMeasurementDetail());
  beacon.details[2]->infoValue32_1 = 7;
  for (signed char c : {1, 2, 3}) beacon.rawBytes.push_back(c);
  beacon.elementA = Element(48, Bytes(20, 0xA1));
  beacon.elementB = Element(45, Bytes(26, 0xB2));
  for (int n : {30, 25})
    beacon.informationElements.push_back(Element(221, VendorData(kVendorOui, n)));
  const auto marshal = [&beacon](int refused) {
    CommonResponseData out;
    for (int i = 0; i < 40; ++i) out.bytes.push_back(static_cast<signed char>(i));
    fail_at = refused;
    MarshalFullBeacon(out, &beacon);
    fail_at = 0;
    return std::make_tuple(Raw(out.measurements), Raw(out.infos), Raw(out.bytes));
  };
  const auto [records, infos, bytes] = marshal(0);
  for (int refused = 1; refused <= 5; ++refused) {
    SCOPED_TRACE(refused);
    const auto [got_records, got_infos, got_bytes] = marshal(refused);
    EXPECT_TRUE(got_records == records || got_records.empty());
    EXPECT_EQ(std::tie(got_infos, got_bytes), std::tie(infos, bytes));
  }
}

}  // namespace
