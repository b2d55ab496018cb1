// Wire records a client sends to the discovery and ranging scan objects and
// the header it receives with discovery results. Plain data in the device's
// byte order (little-endian), natural alignment, no packing attributes.
#ifndef TESK_SCAN_REQUESTS_H_
#define TESK_SCAN_REQUESTS_H_

#include <cstddef>
#include <cstdint>
#include <type_traits>

// Buffer 0 of a discovery scan.
struct DiscoveryScanParams {
  int64_t timeout;
  uint32_t scan_type;  // 0, or anything else for scan type 1
  uint32_t mode;       // kDiscoveryMode* of tesk/interfaces.h
  uint32_t age_filter;
  uint32_t fallback_param;  // cache fallback only
  uint32_t band;            // only without channels: 0, 1, anything else 2
  uint8_t cache_flag;
  uint8_t scan_flag;
  uint8_t reserved[2];
};

// One record of buffer 2 of a discovery scan: an SSID to report.
struct WifiSsid {
  uint8_t reserved[2];
  uint16_t length;  // above 32 is cut to 32
  uint8_t ssid[32];
};

// Buffer 0 of a discovery result delivery.
struct DiscoveryResponseHeader {
  uint64_t response_value;
  uint32_t response_word;
  int32_t scanStatus;
};

// One target of a single ranging scan.
struct RangingTarget {
  uint32_t macLo24;
  uint32_t macHi24;
  uint32_t nodeValue1;
  uint32_t nodeValue2;
  uint32_t nodeValue3;
  uint32_t nodeEnum1;  // 1-5, else 0
  uint32_t peerLo24;
  uint32_t peerHi24;
  uint32_t nodeEnum2;  // 0-3, else 1
  uint32_t nodeEnum3;  // 1-4, else 0
  uint32_t nodeEnum4;  // 1-3, else 0
  uint32_t nodeValue4;
  uint8_t nodeByte1;
  uint8_t nodeByte2;
  uint8_t padding[2];
};

// One target of a periodic ranging scan: a single-scan target and three more values.
struct PeriodicRangingTarget {
  RangingTarget node;
  uint32_t periodicValue1;
  uint32_t periodicValue2;
  uint8_t periodicByte;
  uint8_t padding[3];
};

// Buffer 1 of both ranging methods.
using RangingTimeValue = int64_t;

static_assert(sizeof(DiscoveryScanParams) == 32);
static_assert(offsetof(DiscoveryScanParams, timeout) == 0);
static_assert(offsetof(DiscoveryScanParams, scan_type) == 8);
static_assert(offsetof(DiscoveryScanParams, mode) == 12);
static_assert(offsetof(DiscoveryScanParams, age_filter) == 16);
static_assert(offsetof(DiscoveryScanParams, fallback_param) == 20);
static_assert(offsetof(DiscoveryScanParams, band) == 24);
static_assert(offsetof(DiscoveryScanParams, cache_flag) == 28);
static_assert(offsetof(DiscoveryScanParams, scan_flag) == 29);
static_assert(offsetof(DiscoveryScanParams, reserved) == 30);
static_assert(std::is_trivially_copyable_v<DiscoveryScanParams>);

static_assert(sizeof(WifiSsid) == 36);
static_assert(offsetof(WifiSsid, reserved) == 0);
static_assert(offsetof(WifiSsid, length) == 2);
static_assert(offsetof(WifiSsid, ssid) == 4);
static_assert(std::is_trivially_copyable_v<WifiSsid>);

static_assert(sizeof(DiscoveryResponseHeader) == 16);
static_assert(offsetof(DiscoveryResponseHeader, response_value) == 0);
static_assert(offsetof(DiscoveryResponseHeader, response_word) == 8);
static_assert(offsetof(DiscoveryResponseHeader, scanStatus) == 12);
static_assert(std::is_trivially_copyable_v<DiscoveryResponseHeader>);

static_assert(sizeof(RangingTarget) == 52);
static_assert(offsetof(RangingTarget, macLo24) == 0);
static_assert(offsetof(RangingTarget, macHi24) == 4);
static_assert(offsetof(RangingTarget, nodeValue1) == 8);
static_assert(offsetof(RangingTarget, nodeValue2) == 12);
static_assert(offsetof(RangingTarget, nodeValue3) == 16);
static_assert(offsetof(RangingTarget, nodeEnum1) == 20);
static_assert(offsetof(RangingTarget, peerLo24) == 24);
static_assert(offsetof(RangingTarget, peerHi24) == 28);
static_assert(offsetof(RangingTarget, nodeEnum2) == 32);
static_assert(offsetof(RangingTarget, nodeEnum3) == 36);
static_assert(offsetof(RangingTarget, nodeEnum4) == 40);
static_assert(offsetof(RangingTarget, nodeValue4) == 44);
static_assert(offsetof(RangingTarget, nodeByte1) == 48);
static_assert(offsetof(RangingTarget, nodeByte2) == 49);
static_assert(offsetof(RangingTarget, padding) == 50);
static_assert(std::is_trivially_copyable_v<RangingTarget>);

static_assert(sizeof(PeriodicRangingTarget) == 64);
static_assert(offsetof(PeriodicRangingTarget, node) == 0);
static_assert(offsetof(PeriodicRangingTarget, periodicValue1) == 52);
static_assert(offsetof(PeriodicRangingTarget, periodicValue2) == 56);
static_assert(offsetof(PeriodicRangingTarget, periodicByte) == 60);
static_assert(offsetof(PeriodicRangingTarget, padding) == 61);
static_assert(std::is_trivially_copyable_v<PeriodicRangingTarget>);

static_assert(sizeof(RangingTimeValue) == 8);

#endif  // TESK_SCAN_REQUESTS_H_
