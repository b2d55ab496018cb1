// The library's value classes, request factories and the layout that the
// daemon's marshalling relies on.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <vector>

#include "ky_loc_fw/vela_client.h"
#include "ky_loc_fw/vela_test_control.h"

namespace ky_loc_fw {
namespace {

using Request = VELADiscoveryScanRequest;

template <typename C, typename M>
size_t OffsetIn(const C& object, const M& member) {
  return static_cast<size_t>(reinterpret_cast<const char*>(&member) -
                             reinterpret_cast<const char*>(&object));
}

struct Field {
  size_t offset;
  size_t size;
};

// Each field starts after the previous one ends, in declaration order.
void ExpectInOrder(const std::vector<Field>& fields) {
  for (size_t i = 1; i < fields.size(); ++i) {
    EXPECT_GE(fields[i].offset, fields[i - 1].offset + fields[i - 1].size) << "field " << i;
  }
}

#define FIELD(object, name)                            \
  Field {                                              \
    OffsetIn(object, object.name), sizeof(object.name) \
  }

TEST(VelaLayout, ScanMeasurementFieldsFollowTheTableAfterTheVtable) {
  VELAFullBeaconScanMeasurement m;
  const std::vector<Field> fields = {FIELD(m, bssid),
                                     FIELD(m, value32_2),
                                     FIELD(m, unreadField3),
                                     FIELD(m, value8_8),
                                     FIELD(m, value8_9),
                                     FIELD(m, value32_5),
                                     FIELD(m, value32_6),
                                     FIELD(m, ssid),
                                     FIELD(m, value8_7),
                                     FIELD(m, value8_3),
                                     FIELD(m, details),
                                     FIELD(m, value32_7),
                                     FIELD(m, value8_1),
                                     FIELD(m, value8_2),
                                     FIELD(m, value32_3),
                                     FIELD(m, value16_1),
                                     FIELD(m, value16_2),
                                     FIELD(m, value32_10),
                                     FIELD(m, rawBytes),
                                     FIELD(m, value16_3),
                                     FIELD(m, value16_4),
                                     FIELD(m, value8_4),
                                     FIELD(m, value8_5),
                                     FIELD(m, value8_6),
                                     FIELD(m, elementA),
                                     FIELD(m, elementB),
                                     FIELD(m, unreadField26),
                                     FIELD(m, value32_4),
                                     FIELD(m, value32_8),
                                     FIELD(m, value32_1),
                                     FIELD(m, value32_9),
                                     FIELD(m, value64),
                                     FIELD(m, beaconTsf),
                                     FIELD(m, unreadBeacon),
                                     FIELD(m, informationElements)};
  ExpectInOrder(fields);
  EXPECT_EQ(fields.front().offset, sizeof(void*));    // only the vtable comes first
  EXPECT_EQ(fields[4].offset, fields[3].offset + 1);  // the two bytes of field 4 are adjacent
  EXPECT_EQ(sizeof(m.unreadField26), 8u);
  EXPECT_EQ(sizeof(m.unreadBeacon), 8u);
  EXPECT_EQ(sizeof(m.beaconTsf), 8u);
  EXPECT_EQ(sizeof(m.value64), 8u);

  VELARangingScanMeasurement r;
  EXPECT_EQ(OffsetIn(r, r.unreadRanging), sizeof(VELAScanMeasurement));
  EXPECT_EQ(sizeof(r.unreadRanging), 16u);
  EXPECT_EQ(OffsetIn(r, r.macList), OffsetIn(r, r.unreadRanging) + 16);
}

TEST(VelaLayout, ResponseStatusSitsBetweenItsWordAndItsValue) {
  VELADiscoveryScanResponse d(1);
  EXPECT_EQ(OffsetIn(d, d.scanStatus), OffsetIn(d, d.scanSource) + 4);
  EXPECT_EQ(OffsetIn(d, d.scanTimestamp), (OffsetIn(d, d.scanStatus) + 4 + 7) / 8 * 8);
  EXPECT_EQ(sizeof(d.scanSource), 4u);
  EXPECT_EQ(sizeof(d.scanStatus), 4u);
  EXPECT_EQ(sizeof(d.scanTimestamp), 8u);

  VELARangingScanResponse r(1);
  EXPECT_LT(OffsetIn(r, r.scanStatus), OffsetIn(r, r.measurements));
  EXPECT_LE(OffsetIn(r, r.scanStatus), sizeof(VELAResponse));
}

TEST(VelaLayout, NodeFieldsFollowTheTargetRecordOrder) {
  VELAPeriodicNodeInfo n;
  ExpectInOrder({FIELD(n, mac), FIELD(n, nodeValue1), FIELD(n, nodeValue2), FIELD(n, nodeValue3),
                 FIELD(n, nodeEnum1), FIELD(n, peerMac), FIELD(n, nodeEnum2), FIELD(n, nodeEnum3),
                 FIELD(n, ftmsPerBurst), FIELD(n, nodeEnum4), FIELD(n, nodeByte1),
                 FIELD(n, nodeByte2), FIELD(n, nodeValue4), FIELD(n, maxBursts),
                 FIELD(n, periodicByte), FIELD(n, periodicValue1), FIELD(n, periodicValue2)});
  EXPECT_EQ(sizeof(n.nodeEnum1), 4u);
  EXPECT_EQ(sizeof(n.periodicByte), 1u);
  EXPECT_EQ(n.ftmsPerBurst, VELANodeInfo::kDefaultFtmsPerBurst);
  EXPECT_EQ(n.maxBursts, 0u);
}

TEST(VelaMacAddress, KeepsTwentyFourBitsOfEachHalf) {
  VELAMacAddress mac;
  EXPECT_EQ(mac.getHi24(), 0u);
  mac.setMac(0x7F123456, -1);
  EXPECT_EQ(mac.getHi24(), 0x123456u);
  EXPECT_EQ(mac.getLo24(), 0xFFFFFFu);
  VELAMacAddress copy;
  copy = mac;
  EXPECT_EQ(copy, mac);
}

TEST(VelaSsid, AcceptsZeroToThirtyTwoBytes) {
  const unsigned char name[40] = "0123456789abcdef0123456789abcdefXYZ";
  struct Case {
    const unsigned char* bytes;
    int length;
    bool valid;
  } cases[] = {{name, 0, true},   {nullptr, 0, true}, {name, 1, true},    {name, 32, true},
               {name, 33, false}, {name, -1, false},  {nullptr, 3, false}};
  for (const Case& c : cases) {
    VELASsid ssid;
    ssid.setSSID(c.bytes, c.length);
    EXPECT_EQ(ssid.isSSIDValid(), c.valid) << c.length;
    unsigned char buf[32];
    int len = -7;
    EXPECT_EQ(ssid.getSSID(buf, &len), c.valid ? 0 : -1) << c.length;
    if (c.valid) {
      ASSERT_EQ(len, c.length);
      EXPECT_EQ(std::memcmp(buf, name, static_cast<size_t>(len)), 0);
    } else {
      EXPECT_EQ(len, -7);  // nothing written
    }
  }
}

TEST(VelaSsid, GetFailsForAValidButOverlongStateAndForNullArguments) {
  VELASsid ssid;
  const unsigned char name[40] = "abc";
  vela_test::SsidAccess::Set(&ssid, name, 40, true);
  unsigned char buf[32];
  int len = 0;
  EXPECT_TRUE(ssid.isSSIDValid());
  EXPECT_EQ(ssid.getSSID(buf, &len), -1);
  ssid.setSSID(name, 3);
  EXPECT_EQ(ssid.getSSID(nullptr, &len), -1);
  EXPECT_EQ(ssid.getSSID(buf, nullptr), -1);
}

TEST(VelaChannelInfo, TakesChannelNumbersOrFrequencies) {
  struct Case {
    unsigned int value, channel, mhz;
  } cases[] = {{1, 1, 2412},    {13, 13, 2472},    {14, 14, 2484}, {36, 36, 5180}, {165, 165, 5825},
               {2437, 6, 2437}, {5500, 100, 5500}, {0, 0, 0},      {15, 0, 0},     {2413, 0, 0}};
  for (const Case& c : cases) {
    VELAChannelInfo info(c.value);
    EXPECT_EQ(info.getValue(), c.value);
    EXPECT_EQ(info.getChannel(), c.channel) << c.value;
    EXPECT_EQ(info.getFrequencyMhz(), c.mhz) << c.value;
  }
}

TEST(VelaDiscoveryRequest, EachFactoryKeepsEveryArgument) {
  ky_loc_fw::vector<VELAChannelInfo> channels;
  channels.push_back(VELAChannelInfo(6));
  channels.push_back(VELAChannelInfo(149));
  struct Case {
    std::unique_ptr<Request> request;
    Request::eRequestKind kind;
    bool channels;
    Request::eBand band;
    Request::eScanType type;
    unsigned int age, fallback;
    long timeout;
    Request::eRequestMode mode;
    bool cache, scan;
  };
  Case cases[6];
  cases[0] = {std::unique_ptr<Request>(Request::createFreshScanRequest(
                  11, Request::BAND_5_GHZ, Request::SCAN_TYPE_PASSIVE, 500, 7000000000L,
                  Request::REQUEST_MODE_HIGH_ACCURACY, true)),
              Request::KIND_FRESH_SCAN,
              false,
              Request::BAND_5_GHZ,
              Request::SCAN_TYPE_PASSIVE,
              500,
              0,
              7000000000L,
              Request::REQUEST_MODE_HIGH_ACCURACY,
              false,
              true};
  cases[1] = {
      std::unique_ptr<Request>(Request::createFreshScanRequest(
          12, channels, Request::SCAN_TYPE_ACTIVE, 1, -5, Request::REQUEST_MODE_NORMAL, false)),
      Request::KIND_FRESH_SCAN,
      true,
      Request::BAND_ALL,
      Request::SCAN_TYPE_ACTIVE,
      1,
      0,
      -5,
      Request::REQUEST_MODE_NORMAL,
      false,
      false};
  cases[2] = {std::unique_ptr<Request>(
                  Request::createCacheOnlyRequest(13, Request::BAND_2_4_GHZ, 2, 3, true)),
              Request::KIND_CACHE_ONLY,
              false,
              Request::BAND_2_4_GHZ,
              Request::SCAN_TYPE_ACTIVE,
              2,
              0,
              3,
              Request::REQUEST_MODE_NORMAL,
              true,
              false};
  cases[3] = {std::unique_ptr<Request>(Request::createCacheOnlyRequest(14, channels, 4, 5, false)),
              Request::KIND_CACHE_ONLY,
              true,
              Request::BAND_ALL,
              Request::SCAN_TYPE_ACTIVE,
              4,
              0,
              5,
              Request::REQUEST_MODE_NORMAL,
              false,
              false};
  cases[4] = {std::unique_ptr<Request>(Request::createCacheFallbackRequest(
                  15, Request::BAND_ALL, Request::SCAN_TYPE_PASSIVE, 6, 7, 8, true, false)),
              Request::KIND_CACHE_FALLBACK,
              false,
              Request::BAND_ALL,
              Request::SCAN_TYPE_PASSIVE,
              6,
              7,
              8,
              Request::REQUEST_MODE_NORMAL,
              true,
              false};
  cases[5] = {std::unique_ptr<Request>(Request::createCacheFallbackRequest(
                  16, channels, Request::SCAN_TYPE_ACTIVE, 9, 10, 11, false, true)),
              Request::KIND_CACHE_FALLBACK,
              true,
              Request::BAND_ALL,
              Request::SCAN_TYPE_ACTIVE,
              9,
              10,
              11,
              Request::REQUEST_MODE_NORMAL,
              false,
              true};
  unsigned int id = 11;
  for (const Case& c : cases) {
    SCOPED_TRACE(id);
    ASSERT_NE(c.request, nullptr);
    const Request& r = *c.request;
    EXPECT_EQ(r.getRequestId(), id++);
    EXPECT_EQ(r.getRequestType(), VELARequest::REQUEST_TYPE_DISCOVERY_SCAN);
    EXPECT_EQ(r.getKind(), c.kind);
    EXPECT_EQ(r.hasChannels(), c.channels);
    EXPECT_EQ(r.getChannels().getCount(), c.channels ? 2u : 0u);
    EXPECT_EQ(r.getBand(), c.band);
    EXPECT_EQ(r.getScanType(), c.type);
    EXPECT_EQ(r.getAgeFilter(), c.age);
    EXPECT_EQ(r.getFallbackParam(), c.fallback);
    EXPECT_EQ(r.getTimeout(), c.timeout);
    EXPECT_EQ(r.getRequestMode(), c.mode);
    EXPECT_EQ(r.getCacheFlag(), c.cache);
    EXPECT_EQ(r.getScanFlag(), c.scan);
    EXPECT_EQ(r.ssidFilter.getCount(), 0u);
    EXPECT_EQ(r.bssidFilter.getCount(), 0u);
  }
  EXPECT_EQ(cases[1].request->getChannels()[1].getValue(), 149u);
}

TEST(VelaDiscoveryRequest, FactoriesRefuseWhatTheServiceCannotScan) {
  ky_loc_fw::vector<VELAChannelInfo> none;
  const auto bad_band = static_cast<Request::eBand>(3);
  const auto bad_type = static_cast<Request::eScanType>(2);
  const auto bad_mode = static_cast<Request::eRequestMode>(2);
  std::unique_ptr<Request> made[] = {
      std::unique_ptr<Request>(Request::createFreshScanRequest(
          1, bad_band, Request::SCAN_TYPE_ACTIVE, 0, 0, Request::REQUEST_MODE_NORMAL, false)),
      std::unique_ptr<Request>(Request::createFreshScanRequest(
          1, Request::BAND_ALL, bad_type, 0, 0, Request::REQUEST_MODE_NORMAL, false)),
      std::unique_ptr<Request>(Request::createFreshScanRequest(
          1, Request::BAND_ALL, Request::SCAN_TYPE_ACTIVE, 0, 0, bad_mode, false)),
      std::unique_ptr<Request>(Request::createFreshScanRequest(
          1, none, Request::SCAN_TYPE_ACTIVE, 0, 0, Request::REQUEST_MODE_NORMAL, false)),
      std::unique_ptr<Request>(Request::createCacheOnlyRequest(1, none, 0, 0, false)),
      std::unique_ptr<Request>(Request::createCacheFallbackRequest(
          1, bad_band, Request::SCAN_TYPE_ACTIVE, 0, 0, 0, false, false)),
  };
  for (const auto& r : made) EXPECT_EQ(r, nullptr);
}

TEST(VelaRangingRequest, CopiesItsTargets) {
  ky_loc_fw::vector<VELANodeInfo> nodes;
  VELANodeInfo node;
  node.nodeValue1 = 5180;
  nodes.push_back(node);
  VELARangingScanRequest request(3, nodes, 123456789012L);
  nodes = ky_loc_fw::vector<VELANodeInfo>();
  ASSERT_EQ(request.getNodes().getCount(), 1u);
  EXPECT_EQ(request.getNodes()[0].nodeValue1, 5180u);
  EXPECT_EQ(request.getTimestamp(), 123456789012L);
  EXPECT_EQ(request.getRequestType(), VELARequest::REQUEST_TYPE_RANGING_SCAN);

  ky_loc_fw::vector<VELAPeriodicNodeInfo> periodic;
  VELAPeriodicNodeInfo p;
  p.periodicValue2 = 9;
  periodic.push_back(p);
  VELAPeriodicRangingScanRequest periodic_request(4, periodic, -1);
  EXPECT_EQ(periodic_request.getNodes()[0].periodicValue2, 9u);
  EXPECT_EQ(periodic_request.getRequestType(), VELARequest::REQUEST_TYPE_PERIODIC_RANGING_SCAN);
}

TEST(VelaBuilders, FillDistinctGivesEveryFieldItsOwnValue) {
  VELAFullBeaconScanMeasurement m;
  vela_test::FillDistinct(&m, 7);
  const uint32_t words[] = {m.value32_1, m.value32_2, m.value32_3, m.value32_4, m.value32_5,
                            m.value32_6, m.value32_7, m.value32_8, m.value32_9, m.value32_10};
  for (size_t i = 0; i < 10; ++i) {
    for (size_t j = i + 1; j < 10; ++j) EXPECT_NE(words[i], words[j]) << i << " " << j;
  }
  EXPECT_EQ(m.details.getCount(), 2u);
  EXPECT_EQ(m.rawBytes.getCount(), 12u);
  ASSERT_NE(m.elementA, nullptr);
  ASSERT_NE(m.elementB, nullptr);
  ASSERT_EQ(m.informationElements.getCount(), 4u);
  const VELAInfoElement* own = m.informationElements[2];
  EXPECT_EQ(own->id, 221);
  EXPECT_GE(own->len, 25);
  EXPECT_EQ(std::memcmp(own->data, vela_test::kVendorOui, 3), 0);
  const uint8_t expected_oui[] = {TESK_VENDOR_OUI_BYTES};
  EXPECT_EQ(std::memcmp(vela_test::kVendorOui, expected_oui, 3), 0);
}

}  // namespace
}  // namespace ky_loc_fw
