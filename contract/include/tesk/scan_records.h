// Flat result records handed to remote clients: pointer-free, little-endian,
// natural alignment, no packing.
//
// A response carries one array of WifiScanMeasurement, one pooled array of
// WifiMeasurementInfo, one byte pool and (ranging only) one pooled array of
// WifiMacAddress; each scan record finds its share of the pools by the
// indexes, offsets and counts it holds.
#ifndef TESK_SCAN_RECORDS_H_
#define TESK_SCAN_RECORDS_H_

#include <cstddef>
#include <cstdint>
#include <type_traits>

// A MAC address split into two 24-bit halves, as the location library keeps it.
struct WifiMacAddress {
  uint32_t lo24;
  uint32_t hi24;
};

// One measured station. Every byte not named is zero.
struct WifiScanMeasurement {
  uint32_t bssidLo24;
  uint32_t bssidHi24;
  uint64_t value64;
  uint32_t value32_1;
  uint32_t value32_2;
  uint32_t value32_3;
  uint32_t value32_4;
  uint32_t value32_5;
  uint32_t value32_6;
  uint32_t value32_7;
  uint32_t value32_8;
  uint32_t value32_9;
  uint32_t value32_10;
  uint16_t value16_1;
  uint16_t value16_2;
  uint16_t firstInfoIndex;  // into the WifiMeasurementInfo pool
  uint16_t infoCount;
  uint32_t bytesOffset;  // into the byte pool
  uint32_t bytesLength;
  uint32_t elementAOffset;  // 0 with a length of 0 when absent
  uint32_t elementALength;  // identifier and length bytes included
  uint32_t elementBOffset;
  uint32_t elementBLength;
  uint32_t beaconIesOffset;  // full beacons only
  uint32_t beaconIesLength;
  uint32_t reserved0;
  uint32_t firstMacIndex;  // ranging only: into the WifiMacAddress pool
  uint32_t macCount;
  uint16_t reserved1;
  uint16_t value16_3;
  uint16_t value16_4;
  uint8_t ssidValid;
  uint8_t ssidPresent;
  uint16_t ssidLength;
  uint8_t ssid[32];  // unterminated; zero after ssidLength
  uint8_t value8_1;
  uint8_t value8_2;
  uint8_t value8_3;
  uint8_t value8_4;
  uint8_t value8_5;
  uint8_t value8_6;
  uint8_t value8_7;
  uint8_t value8_8;
  uint8_t value8_9;
  uint8_t reserved2;
};

// One detail entry of a measurement, pooled across all measurements.
struct WifiMeasurementInfo {
  uint32_t infoValue32_1;
  uint32_t infoValue32_2;
  uint32_t infoValue32_3;
  uint32_t infoValue32_4;
  uint8_t infoBlock[16];
  uint16_t infoValue16_1;
  uint16_t infoValue16_2;
  uint32_t infoValue32_5;
  uint32_t infoValue32_6;
  uint32_t infoValue32_7;
  uint8_t infoValue8_1;
  uint8_t infoValue8_2;
  uint8_t infoValue8_3;
  uint8_t infoValue8_4;
  uint32_t infoValue32_8;
  uint8_t infoValue8_5;
  uint8_t infoValue8_6;
  uint8_t infoValue8_7;
  uint8_t infoValue8_8;
  uint8_t padding[4];
};

static_assert(std::is_trivially_copyable<WifiMacAddress>::value, "wire record");
static_assert(std::is_standard_layout<WifiMacAddress>::value, "wire record");
static_assert(sizeof(WifiMacAddress) == 8, "wire record size");
static_assert(offsetof(WifiMacAddress, lo24) == 0, "wire offset");
static_assert(offsetof(WifiMacAddress, hi24) == 4, "wire offset");

static_assert(std::is_trivially_copyable<WifiScanMeasurement>::value, "wire record");
static_assert(std::is_standard_layout<WifiScanMeasurement>::value, "wire record");
static_assert(sizeof(WifiScanMeasurement) == 160, "wire record size");
static_assert(offsetof(WifiScanMeasurement, bssidLo24) == 0, "wire offset");
static_assert(offsetof(WifiScanMeasurement, bssidHi24) == 4, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value64) == 8, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value32_1) == 16, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value32_2) == 20, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value32_3) == 24, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value32_4) == 28, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value32_5) == 32, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value32_6) == 36, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value32_7) == 40, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value32_8) == 44, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value32_9) == 48, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value32_10) == 52, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value16_1) == 56, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value16_2) == 58, "wire offset");
static_assert(offsetof(WifiScanMeasurement, firstInfoIndex) == 60, "wire offset");
static_assert(offsetof(WifiScanMeasurement, infoCount) == 62, "wire offset");
static_assert(offsetof(WifiScanMeasurement, bytesOffset) == 64, "wire offset");
static_assert(offsetof(WifiScanMeasurement, bytesLength) == 68, "wire offset");
static_assert(offsetof(WifiScanMeasurement, elementAOffset) == 72, "wire offset");
static_assert(offsetof(WifiScanMeasurement, elementALength) == 76, "wire offset");
static_assert(offsetof(WifiScanMeasurement, elementBOffset) == 80, "wire offset");
static_assert(offsetof(WifiScanMeasurement, elementBLength) == 84, "wire offset");
static_assert(offsetof(WifiScanMeasurement, beaconIesOffset) == 88, "wire offset");
static_assert(offsetof(WifiScanMeasurement, beaconIesLength) == 92, "wire offset");
static_assert(offsetof(WifiScanMeasurement, reserved0) == 96, "wire offset");
static_assert(offsetof(WifiScanMeasurement, firstMacIndex) == 100, "wire offset");
static_assert(offsetof(WifiScanMeasurement, macCount) == 104, "wire offset");
static_assert(offsetof(WifiScanMeasurement, reserved1) == 108, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value16_3) == 110, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value16_4) == 112, "wire offset");
static_assert(offsetof(WifiScanMeasurement, ssidValid) == 114, "wire offset");
static_assert(offsetof(WifiScanMeasurement, ssidPresent) == 115, "wire offset");
static_assert(offsetof(WifiScanMeasurement, ssidLength) == 116, "wire offset");
static_assert(offsetof(WifiScanMeasurement, ssid) == 118, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value8_1) == 150, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value8_2) == 151, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value8_3) == 152, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value8_4) == 153, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value8_5) == 154, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value8_6) == 155, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value8_7) == 156, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value8_8) == 157, "wire offset");
static_assert(offsetof(WifiScanMeasurement, value8_9) == 158, "wire offset");
static_assert(offsetof(WifiScanMeasurement, reserved2) == 159, "wire offset");

static_assert(std::is_trivially_copyable<WifiMeasurementInfo>::value, "wire record");
static_assert(std::is_standard_layout<WifiMeasurementInfo>::value, "wire record");
static_assert(sizeof(WifiMeasurementInfo) == 64, "wire record size");
static_assert(offsetof(WifiMeasurementInfo, infoValue32_1) == 0, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, infoValue32_2) == 4, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, infoValue32_3) == 8, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, infoValue32_4) == 12, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, infoBlock) == 16, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, infoValue16_1) == 32, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, infoValue16_2) == 34, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, infoValue32_5) == 36, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, infoValue32_6) == 40, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, infoValue32_7) == 44, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, infoValue8_1) == 48, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, infoValue8_2) == 49, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, infoValue8_3) == 50, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, infoValue8_4) == 51, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, infoValue32_8) == 52, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, infoValue8_5) == 56, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, infoValue8_6) == 57, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, infoValue8_7) == 58, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, infoValue8_8) == 59, "wire offset");
static_assert(offsetof(WifiMeasurementInfo, padding) == 60, "wire offset");

#endif  // TESK_SCAN_RECORDS_H_
