// Byte-exact records from library measurements with chosen values: every
// field at its wire offset, the pools and how records refer to them, the
// vendor-element extension, and the marshalling's behaviour when an append
// fails (the non-throwing array new of this binary fails on demand).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ky_loc_fw/log_capture.h"
#include "ky_loc_fw/vela_measurement.h"
#include "ky_loc_fw/vela_test_control.h"
#include "scan/marshal.h"

namespace {

// When nonzero, the next non-throwing array allocation of exactly this many
// bytes fails (and the switch resets).
std::size_t fail_size = 0;

}  // namespace

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  if (fail_size != 0 && size == fail_size) {
    fail_size = 0;
    return nullptr;
  }
  try {
    return ::operator new[](size);
  } catch (...) {
    return nullptr;
  }
}

namespace {

using ky_loc_fw::VELAFullBeaconScanMeasurement;
using ky_loc_fw::VELAInfoElement;
using ky_loc_fw::VELAMeasurementDetail;
using ky_loc_fw::VELARangingScanMeasurement;
using ky_loc_fw::VELAScanMeasurement;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using Bytes = std::vector<uint8_t>;

constexpr uint8_t kOwnOui[3] = {TESK_VENDOR_OUI_BYTES};

// A record as bytes, written at explicit offsets so that a test does not
// lean on the struct it checks.
template <std::size_t N>
struct Image {
  uint8_t b[N] = {};
  void Put(std::size_t offset, int width, uint64_t value) {
    for (int i = 0; i < width; ++i) b[offset + i] = static_cast<uint8_t>(value >> (8 * i));
  }
  Bytes bytes() const { return Bytes(b, b + N); }
};

template <typename T>
Bytes RecordBytes(const ky_loc_fw::vector<T>& array, uint32_t index) {
  const auto* p = reinterpret_cast<const uint8_t*>(array.getData() + index);
  return Bytes(p, p + sizeof(T));
}

Bytes Pool(const CommonResponseData& out) {
  const auto* p = reinterpret_cast<const uint8_t*>(out.bytes.getData());
  return p == nullptr ? Bytes() : Bytes(p, p + out.bytes.getCount());
}

Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

VELAInfoElement* Element(uint8_t id, const Bytes& data) {
  return new VELAInfoElement(id, data.data(), static_cast<uint8_t>(data.size()));
}

ky_loc_fw::VELAMacAddress Mac(int hi24, int lo24) {
  ky_loc_fw::VELAMacAddress mac;
  mac.setMac(hi24, lo24);
  return mac;
}

Bytes VendorData(const uint8_t* oui, std::size_t length) {
  Bytes data(length);
  for (std::size_t i = 0; i < length; ++i) data[i] = static_cast<uint8_t>(0x40 + i);
  if (length >= 3) std::memcpy(data.data(), oui, 3);
  return data;
}

class MarshalTest : public ::testing::Test {
 protected:
  void SetUp() override { ky_loc_fw::log_set_sink(&MarshalTest::Sink, this, true); }
  void TearDown() override {
    ky_loc_fw::log_set_sink(nullptr, nullptr, false);
    fail_size = 0;
  }
  static void Sink(void* context, char letter, const char* tag, const char* text) {
    static_cast<MarshalTest*>(context)->lines_.push_back(std::string(1, letter) + " " + tag + ": " +
                                                         text);
  }
  std::vector<std::string> lines_;
};

// One library field set, every other left at the constructor's zero: the
// record must be all zero but for that field at its wire offset.
struct FieldCase {
  const char* name;
  std::size_t offset;
  int width;
  uint64_t value;
  void (*set)(VELAScanMeasurement*, uint64_t);
};

#define FIELD(field, offset, width, value)                                                         \
  FieldCase {                                                                                      \
#field, offset, width, value,                                                                  \
        [](VELAScanMeasurement * m, uint64_t v) { m->field = static_cast<decltype(m->field)>(v); } \
  }

TEST_F(MarshalTest, EachLibraryFieldLandsAtItsOffsetAndNowhereElse) {
  const FieldCase cases[] = {
      {"bssid.lo24", 0, 4, 0xD4E5F6,
       [](VELAScanMeasurement* m, uint64_t v) { m->bssid.setMac(0, static_cast<int>(v)); }},
      {"bssid.hi24", 4, 4, 0xA1B2C3,
       [](VELAScanMeasurement* m, uint64_t v) { m->bssid.setMac(static_cast<int>(v), 0); }},
      FIELD(value64, 8, 8, 0x0102030405060708),
      FIELD(value32_1, 16, 4, 0xA1B2C3D4),
      FIELD(value32_2, 20, 4, 0xA1B2C3D4),
      FIELD(value32_3, 24, 4, 0xA1B2C3D4),
      FIELD(value32_4, 28, 4, 0xA1B2C3D4),
      FIELD(value32_5, 32, 4, 0xA1B2C3D4),
      FIELD(value32_6, 36, 4, 0xA1B2C3D4),
      FIELD(value32_7, 40, 4, 0xA1B2C3D4),
      FIELD(value32_8, 44, 4, 0xA1B2C3D4),
      FIELD(value32_9, 48, 4, 0xA1B2C3D4),
      FIELD(value32_10, 52, 4, 0xA1B2C3D4),
      FIELD(value16_1, 56, 2, 0xBEEF),
      FIELD(value16_2, 58, 2, 0xBEEF),
      FIELD(value16_3, 110, 2, 0xBEEF),
      FIELD(value16_4, 112, 2, 0xBEEF),
      FIELD(value8_1, 150, 1, 0x5A),
      FIELD(value8_2, 151, 1, 0x5A),
      FIELD(value8_3, 152, 1, 0x5A),
      FIELD(value8_4, 153, 1, 0x5A),
      FIELD(value8_5, 154, 1, 0x5A),
      FIELD(value8_6, 155, 1, 0x5A),
      FIELD(value8_7, 156, 1, 0x5A),
      FIELD(value8_8, 157, 1, 0x5A),
      FIELD(value8_9, 158, 1, 0x5A),
      // Not read: the record stays all zero.
      FIELD(unreadField3, 0, 0, 0xFFFFFFFF),
      FIELD(unreadField26, 0, 0, ~0ull),
  };
  for (const FieldCase& c : cases) {
    SCOPED_TRACE(c.name);
    VELAScanMeasurement m;
    c.set(&m, c.value);
    CommonResponseData out;
    MarshalCommon(out, &m);
    ASSERT_EQ(out.measurements.getCount(), 1u);
    Image<160> expected;
    expected.Put(c.offset, c.width, c.value);
    EXPECT_EQ(RecordBytes(out.measurements, 0), expected.bytes());
  }
}

TEST_F(MarshalTest, EachDetailFieldLandsAtItsOffset) {
  struct DetailCase {
    const char* name;
    std::size_t offset;
    int width;
    uint64_t stored;  // what the record holds
    void (*set)(VELAMeasurementDetail*);
  };
  const DetailCase cases[] = {
      {"32_1", 0, 4, 0xA1B2C3D4, [](VELAMeasurementDetail* d) { d->infoValue32_1 = 0xA1B2C3D4; }},
      {"32_2", 4, 4, 0xA1B2C3D4, [](VELAMeasurementDetail* d) { d->infoValue32_2 = 0xA1B2C3D4; }},
      {"32_3", 8, 4, 0xA1B2C3D4, [](VELAMeasurementDetail* d) { d->infoValue32_3 = 0xA1B2C3D4; }},
      // A 16-bit library field, zero-extended.
      {"32_4", 12, 4, 0xBEEF, [](VELAMeasurementDetail* d) { d->infoValue32_4 = 0xBEEF; }},
      {"16_1", 32, 2, 0xBEEF, [](VELAMeasurementDetail* d) { d->infoValue16_1 = 0xBEEF; }},
      // A 32-bit library field cut to its low 16 bits.
      {"16_2", 34, 2, 0x5678, [](VELAMeasurementDetail* d) { d->infoValue16_2 = 0x12345678; }},
      {"32_5", 36, 4, 0xA1B2C3D4, [](VELAMeasurementDetail* d) { d->infoValue32_5 = 0xA1B2C3D4; }},
      {"32_6", 40, 4, 0xA1B2C3D4, [](VELAMeasurementDetail* d) { d->infoValue32_6 = 0xA1B2C3D4; }},
      {"32_7", 44, 4, 0xA1B2C3D4, [](VELAMeasurementDetail* d) { d->infoValue32_7 = 0xA1B2C3D4; }},
      {"8_1", 48, 1, 0x5A, [](VELAMeasurementDetail* d) { d->infoValue8_1 = 0x5A; }},
      {"8_2", 49, 1, 0x5A, [](VELAMeasurementDetail* d) { d->infoValue8_2 = 0x5A; }},
      {"8_3", 50, 1, 0x5A, [](VELAMeasurementDetail* d) { d->infoValue8_3 = 0x5A; }},
      {"8_4", 51, 1, 0x5A, [](VELAMeasurementDetail* d) { d->infoValue8_4 = 0x5A; }},
      {"32_8", 52, 4, 0xA1B2C3D4, [](VELAMeasurementDetail* d) { d->infoValue32_8 = 0xA1B2C3D4; }},
      {"8_5", 56, 1, 0x5A, [](VELAMeasurementDetail* d) { d->infoValue8_5 = 0x5A; }},
      {"8_6", 57, 1, 0x5A, [](VELAMeasurementDetail* d) { d->infoValue8_6 = 0x5A; }},
      {"8_7", 58, 1, 0x5A, [](VELAMeasurementDetail* d) { d->infoValue8_7 = 0x5A; }},
      {"8_8", 59, 1, 0x5A, [](VELAMeasurementDetail* d) { d->infoValue8_8 = 0x5A; }},
      {"unread", 0, 0, 0, [](VELAMeasurementDetail* d) { d->unreadDetail = 0xFFFFFFFF; }},
  };
  for (const DetailCase& c : cases) {
    SCOPED_TRACE(c.name);
    VELAScanMeasurement m;
    auto* detail = new VELAMeasurementDetail();
    c.set(detail);
    m.details.push_back(detail);
    CommonResponseData out;
    MarshalCommon(out, &m);
    ASSERT_EQ(out.infos.getCount(), 1u);
    Image<64> expected;
    expected.Put(c.offset, c.width, c.stored);
    EXPECT_EQ(RecordBytes(out.infos, 0), expected.bytes());
  }

  // The 16-byte block goes over unchanged.
  VELAScanMeasurement m;
  auto* detail = new VELAMeasurementDetail();
  for (int i = 0; i < 16; ++i) detail->infoBlock[i] = static_cast<uint8_t>(0xF0 - i);
  m.details.push_back(detail);
  CommonResponseData out;
  MarshalCommon(out, &m);
  Image<64> expected;
  for (int i = 0; i < 16; ++i) expected.b[16 + i] = static_cast<uint8_t>(0xF0 - i);
  EXPECT_EQ(RecordBytes(out.infos, 0), expected.bytes());
}

TEST_F(MarshalTest, SsidStates) {
  struct SsidCase {
    const char* name;
    std::string bytes;
    int length;  // as stored, bypassing the library's checks
    bool valid;
    uint8_t ssidValid, ssidPresent;
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

// Details, bytes and both elements go to the pools; the record says where.
TEST_F(MarshalTest, PoolsOfOneMeasurement) {
  VELAScanMeasurement m;
  for (uint32_t i = 0; i < 3; ++i) {
    auto* detail = new VELAMeasurementDetail();
    detail->infoValue32_1 = 100 + i;
    m.details.push_back(detail);
  }
  for (signed char c : {-1, 2, -3}) m.rawBytes.push_back(c);
  m.elementA = Element(48, {0x01, 0x00, 0x0F});
  m.elementB = Element(45, {});

  CommonResponseData out;
  out.infos.push_back(WifiMeasurementInfo{});  // earlier content of the pools
  out.bytes.push_back(0x77);
  MarshalCommon(out, &m);

  const WifiScanMeasurement& rec = out.measurements[0];
  EXPECT_EQ(rec.firstInfoIndex, 1);
  EXPECT_EQ(rec.infoCount, 3);
  EXPECT_EQ(out.infos.getCount(), 4u);
  for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(out.infos[1 + i].infoValue32_1, 100 + i);
  EXPECT_EQ(rec.bytesOffset, 1u);
  EXPECT_EQ(rec.bytesLength, 3u);
  EXPECT_EQ(rec.elementAOffset, 4u);
  EXPECT_EQ(rec.elementALength, 5u);
  EXPECT_EQ(rec.elementBOffset, 9u);
  EXPECT_EQ(rec.elementBLength, 2u);
  EXPECT_EQ(rec.beaconIesOffset, 0u);
  EXPECT_EQ(rec.macCount, 0u);
  EXPECT_EQ(Pool(out), (Bytes{0x77, 0xFF, 0x02, 0xFD, 48, 3, 0x01, 0x00, 0x0F, 45, 0}));
}

TEST_F(MarshalTest, EmptyListsAndAbsentElementA) {
  VELAScanMeasurement m;
  m.elementB = Element(45, {0xAA});
  CommonResponseData out;
  for (int i = 0; i < 5; ++i) out.bytes.push_back(0);
  out.infos.push_back(WifiMeasurementInfo{});
  MarshalCommon(out, &m);
  const WifiScanMeasurement& rec = out.measurements[0];
  EXPECT_EQ(rec.firstInfoIndex, 1);
  EXPECT_EQ(rec.infoCount, 0);
  EXPECT_EQ(rec.bytesOffset, 5u);
  EXPECT_EQ(rec.bytesLength, 0u);
  EXPECT_EQ(rec.elementAOffset, 0u);
  EXPECT_EQ(rec.elementALength, 0u);
  EXPECT_EQ(rec.elementBOffset, 5u);
  EXPECT_EQ(rec.elementBLength, 3u);
}

TEST_F(MarshalTest, DetailCountIsCutToSixteenBits) {
  VELAScanMeasurement m;
  for (uint32_t i = 0; i < 70000; ++i) {
    auto* detail = new VELAMeasurementDetail();
    detail->infoValue32_1 = i;
    m.details.push_back(detail);
  }
  CommonResponseData out;
  MarshalCommon(out, &m);
  EXPECT_EQ(out.measurements[0].infoCount, 70000 % 65536);
  ASSERT_EQ(out.infos.getCount(), 70000u % 65536);
  EXPECT_EQ(out.infos[4463].infoValue32_1, 4463u);
}

TEST_F(MarshalTest, NullMeasurementAppendsNothing) {
  RangingData out;
  MarshalCommon(out, nullptr);
  MarshalFullBeacon(out, nullptr);
  MarshalRanging(out, nullptr);
  EXPECT_EQ(out.measurements.getCount(), 0u);
  EXPECT_EQ(out.bytes.getCount(), 0u);
  EXPECT_EQ(out.macs.getCount(), 0u);
  EXPECT_TRUE(lines_.empty());
}

TEST_F(MarshalTest, VendorElementExtension) {
  const uint8_t other_oui[3] = {0x00, 0x50, 0xF2};
  struct IeCase {
    const char* name;
    uint8_t id;
    const uint8_t* oui;
    std::size_t length;
    bool extended;
  };
  const IeCase cases[] = {
      {"own, 25", 221, kOwnOui, 25, true},      {"own, 254", 221, kOwnOui, 254, true},
      {"own, 24", 221, kOwnOui, 24, false},     {"own, 255", 221, kOwnOui, 255, false},
      {"other OUI", 221, other_oui, 30, false}, {"not vendor", 220, kOwnOui, 30, false},
  };
  for (const IeCase& c : cases) {
    SCOPED_TRACE(c.name);
    VELAFullBeaconScanMeasurement m;
    m.beaconTsf = 0x1122334455667788;
    const Bytes data = VendorData(c.oui, c.length);
    m.informationElements.push_back(Element(c.id, data));

    CommonResponseData out;
    MarshalFullBeacon(out, &m);
    const WifiScanMeasurement& rec = out.measurements[0];
    EXPECT_EQ(rec.beaconIesOffset, 0u);
    const Bytes expected = c.extended
                               ? Concat({{c.id, static_cast<uint8_t>(c.length + 1)}, data, {0x88}})
                               : Concat({{c.id, static_cast<uint8_t>(c.length)}, data});
    EXPECT_EQ(Pool(out), expected);
    EXPECT_EQ(rec.beaconIesLength, expected.size());
  }
}

TEST_F(MarshalTest, BeaconElementsInOrderSkippingNullEntries) {
  VELAFullBeaconScanMeasurement m;
  m.beaconTsf = 0xAB;
  m.rawBytes.push_back(9);
  m.elementA = Element(48, {1});
  m.informationElements.push_back(Element(0, {'a', 'p'}));
  m.informationElements.push_back(nullptr);
  m.informationElements.push_back(Element(221, VendorData(kOwnOui, 25)));
  m.informationElements.push_back(nullptr);
  m.informationElements.push_back(Element(3, {}));

  CommonResponseData out;
  MarshalFullBeacon(out, &m);
  const WifiScanMeasurement& rec = out.measurements[0];
  EXPECT_EQ(rec.bytesOffset, 0u);
  EXPECT_EQ(rec.elementAOffset, 1u);
  EXPECT_EQ(rec.beaconIesOffset, 4u);
  EXPECT_EQ(rec.beaconIesLength, 4u + 28u + 2u);
  EXPECT_EQ(
      Pool(out),
      Concat(
          {{9, 48, 1, 1}, {0, 2, 'a', 'p'}, {221, 26}, VendorData(kOwnOui, 25), {0xAB}, {3, 0}}));
}

// Records are consecutive and every index into a pool continues where the
// previous measurement left off.
TEST_F(MarshalTest, PoolsContinueAcrossMeasurements) {
  auto fill = [](VELAScanMeasurement* m, int details, int bytes) {
    for (int i = 0; i < details; ++i) m->details.push_back(new VELAMeasurementDetail());
    for (int i = 0; i < bytes; ++i) m->rawBytes.push_back(static_cast<signed char>(i));
  };
  VELAFullBeaconScanMeasurement beacon1, beacon2;
  fill(&beacon1, 2, 3);
  beacon1.informationElements.push_back(Element(0, {'x'}));
  fill(&beacon2, 1, 4);
  beacon2.informationElements.push_back(Element(1, {}));
  CommonResponseData beacons;
  MarshalFullBeacon(beacons, &beacon1);
  MarshalFullBeacon(beacons, &beacon2);
  ASSERT_EQ(beacons.measurements.getCount(), 2u);
  EXPECT_EQ(beacons.measurements[1].firstInfoIndex, 2);
  EXPECT_EQ(beacons.measurements[1].bytesOffset, 3u + 3u);
  EXPECT_EQ(beacons.measurements[1].beaconIesOffset, 3u + 3u + 4u);
  EXPECT_EQ(beacons.measurements[1].beaconIesLength, 2u);
  EXPECT_EQ(beacons.bytes.getCount(), 12u);

  VELAScanMeasurement plain;
  VELARangingScanMeasurement ranging1, ranging2;
  plain.value32_2 = 1;
  ranging1.value32_2 = 2;
  ranging2.value32_2 = 3;
  fill(&ranging1, 1, 1);
  ranging1.macList.push_back(Mac(0x001122, 0x334455));
  ranging1.macList.push_back(Mac(0x66, 0x77));
  ranging2.macList.push_back(Mac(0xABCDEF, 0x012345));
  RangingData out;
  MarshalCommon(out, &plain);
  MarshalRanging(out, &ranging1);
  MarshalRanging(out, &ranging2);
  ASSERT_EQ(out.measurements.getCount(), 3u);
  EXPECT_EQ(out.measurements[0].value32_2, 1u);
  EXPECT_EQ(out.measurements[0].macCount, 0u);
  EXPECT_EQ(out.measurements[1].firstMacIndex, 0u);
  EXPECT_EQ(out.measurements[1].macCount, 2u);
  EXPECT_EQ(out.measurements[2].value32_2, 3u);
  EXPECT_EQ(out.measurements[2].firstInfoIndex, 1);
  EXPECT_EQ(out.measurements[2].bytesOffset, 1u);
  EXPECT_EQ(out.measurements[2].firstMacIndex, 2u);
  EXPECT_EQ(out.measurements[2].macCount, 1u);
  ASSERT_EQ(out.macs.getCount(), 3u);
  EXPECT_EQ(RecordBytes(out.macs, 0), (Bytes{0x55, 0x44, 0x33, 0, 0x22, 0x11, 0x00, 0}));
  EXPECT_EQ(out.macs[1].lo24, 0x77u);
  EXPECT_EQ(out.macs[1].hi24, 0x66u);
  EXPECT_EQ(out.macs[2].lo24, 0x012345u);
  EXPECT_EQ(out.macs[2].hi24, 0xABCDEFu);
}

// The 65th record cannot be stored: the fix-up lands on record 0, as the
// checked access yields, and is logged.
TEST_F(MarshalTest, FailedRecordAppendFixesUpRecordZero) {
  CommonResponseData out;
  VELAFullBeaconScanMeasurement first;
  first.informationElements.push_back(Element(0, {'a'}));
  MarshalFullBeacon(out, &first);
  for (int i = 1; i < 64; ++i) {
    VELAScanMeasurement filler;
    MarshalCommon(out, &filler);
  }
  VELAFullBeaconScanMeasurement last;
  last.rawBytes.push_back(1);
  last.informationElements.push_back(Element(7, {1, 2, 3}));
  lines_.clear();
  fail_size = 128 * sizeof(WifiScanMeasurement);
  MarshalFullBeacon(out, &last);

  EXPECT_THAT(lines_,
              ElementsAre("E vector: insertion failed -2", "E vector: index out of range\n"));
  EXPECT_EQ(out.measurements.getCount(), 64u);
  EXPECT_EQ(out.measurements[0].beaconIesOffset, 4u);
  EXPECT_EQ(out.measurements[0].beaconIesLength, 5u);
  EXPECT_EQ(Pool(out), (Bytes{0, 1, 'a', 1, 7, 3, 1, 2, 3}));
}

// With no record at all there is nothing to fix up; the pools still fill.
TEST_F(MarshalTest, FailedFirstRecordAppend) {
  struct Case {
    const char* name;
    void (*marshal)(RangingData&);
    uint32_t bytes, macs;
  };
  const Case cases[] = {
      {"beacon",
       [](RangingData& out) {
         VELAFullBeaconScanMeasurement m;
         m.informationElements.push_back(Element(0, {'a'}));
         MarshalFullBeacon(out, &m);
       },
       3, 0},
      {"ranging",
       [](RangingData& out) {
         VELARangingScanMeasurement m;
         m.macList.push_back(Mac(1, 2));
         MarshalRanging(out, &m);
       },
       0, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    lines_.clear();
    RangingData out;
    fail_size = 64 * sizeof(WifiScanMeasurement);
    c.marshal(out);
    EXPECT_EQ(out.measurements.getCount(), 0u);
    EXPECT_EQ(out.measurements.getData(), nullptr);
    EXPECT_EQ(out.bytes.getCount(), c.bytes);
    EXPECT_EQ(out.macs.getCount(), c.macs);
    EXPECT_THAT(lines_, ElementsAre("E vector: insertion failed -1"));
  }
}

}  // namespace
