// What the location service measured: one object per access point or station,
// owned by the response that carries it (VELAResponse deletes its
// measurements), and each measurement owns its details and elements.
//
// The fields are public data members in the order and widths the service
// fills them. Their meanings are the service's; the names of the plain value
// fields are positional: each is named after the field of the flattened scan
// record (WifiScanMeasurement, WifiMeasurementInfo) that it feeds, so that
// flattening code reads `rec.value32_2 = m->value32_2`. The comments say what
// the service puts there.
#ifndef KY_LOC_FW_VELA_MEASUREMENT_H_
#define KY_LOC_FW_VELA_MEASUREMENT_H_

#include <cstdint>

#include "ky_loc_fw/vela_mac_address.h"
#include "ky_loc_fw/vela_ssid.h"
#include "scan/vector.h"

namespace ky_loc_fw {

// One 802.11 information element, kept apart from its data. Owns data.
class VELAInfoElement {
 public:
  VELAInfoElement();  // id 0, no data
  // Copies len bytes (data may be null when len is 0).
  VELAInfoElement(uint8_t elementId, const uint8_t* bytes, uint8_t length);
  VELAInfoElement(const VELAInfoElement&) = delete;
  VELAInfoElement& operator=(const VELAInfoElement&) = delete;
  ~VELAInfoElement();

  uint8_t id;
  uint8_t len;
  uint8_t* data;  // len bytes, or null when len is 0
};

// Per-chain detail of a measurement.
class VELAMeasurementDetail {
 public:
  VELAMeasurementDetail();  // all zero

  uint32_t infoValue32_1;  // receive chain index
  uint32_t infoValue32_2;  // RSSI of the chain, dBm (two's complement)
  uint32_t infoValue32_3;  // noise floor of the chain, dBm (two's complement)
  uint32_t unreadDetail;   // the service's own bookkeeping; nobody outside reads it
  uint8_t infoBlock[16];   // the chain's antenna tag, as configured on the device
  uint16_t infoValue16_1;  // automatic gain control index
  uint16_t infoValue32_4;  // frequency the chain was tuned to, MHz
  uint32_t infoValue16_2;  // frames heard on the chain
  uint32_t infoValue32_5;  // time the chain listened, microseconds
  uint32_t infoValue32_6;  // SNR, 0.1 dB units
  uint32_t infoValue32_7;  // frames dropped with a bad checksum
  uint8_t infoValue8_1;    // MCS index of the last frame
  uint8_t infoValue8_2;    // spatial streams of the last frame
  uint8_t infoValue8_3;    // bandwidth of the last frame (0 20, 1 40, 2 80, 3 160 MHz)
  uint8_t infoValue8_4;    // nonzero: the chain saturated
  uint32_t infoValue32_8;  // time stamp of the last frame, milliseconds since boot (low 32 bits)
  uint8_t infoValue8_5;    // antenna gain, dB
  uint8_t infoValue8_6;    // nonzero: diversity antenna
  uint8_t infoValue8_7;    // nonzero: chain shared with Bluetooth
  uint8_t infoValue8_8;    // reserved by the service, 0
};

// A plain scan measurement. Polymorphic: the table of virtual operations comes
// first.
class VELAScanMeasurement {
 public:
  enum eMeasurementType {
    MEASUREMENT_TYPE_SCAN = 0,
    MEASUREMENT_TYPE_FULL_BEACON = 1,
    MEASUREMENT_TYPE_RANGING = 2,
  };

  VELAScanMeasurement();  // every field zero, lists empty, no elements
  VELAScanMeasurement(const VELAScanMeasurement&) = delete;
  VELAScanMeasurement& operator=(const VELAScanMeasurement&) = delete;
  // Deletes the details and the two elements.
  virtual ~VELAScanMeasurement();

  // One of eMeasurementType.
  virtual int getMeasurementType() const;

  VELAMacAddress bssid;   // 1 station measured
  uint32_t value32_2;     // 2 frequency of the primary channel, MHz
  uint32_t unreadField3;  // 3 the service's own sequence number
  uint8_t value8_8;       // 4 IEEE channel number
  uint8_t value8_9;       //   band (0 2.4 GHz, 1 5 GHz)
  uint32_t value32_5;     // 5 RSSI, dBm (two's complement)
  uint32_t value32_6;     // 6 capability information of the beacon
  VELASsid ssid;          // 7
  uint8_t value8_7;       // 8 channel width (0 20, 1 40, 2 80, 3 160 MHz)
  uint8_t value8_3;       // 9 PHY (0 legacy, 1 HT, 2 VHT, 3 HE)
  ky_loc_fw::vector<VELAMeasurementDetail*> details;  // 10 one per receive chain, owned
  uint32_t value32_7;                                 // 11 beacon interval, TU
  uint8_t value8_1;                                   // 12 spatial streams the station offers
  uint8_t value8_2;                         // 13 security (0 open, 1 WEP, 2 WPA, 3 WPA2, 4 WPA3)
  uint32_t value32_3;                       // 14 age of the measurement, milliseconds
  uint16_t value16_1;                       // 15 centre frequency of segment 0, MHz
  uint16_t value16_2;                       // 16 centre frequency of segment 1, MHz (0: none)
  uint32_t value32_10;                      // 17 beacons heard during the scan
  ky_loc_fw::vector<signed char> rawBytes;  // 18 fixed fields of the frame (time stamp,
                                            //    interval, capabilities)
  uint16_t value16_3;                       // 19 802.11 frame control of the frame
  uint16_t value16_4;                       // 20 sequence control of the frame
  uint8_t value8_4;                         // 21 DTIM period
  uint8_t value8_5;                         // 22 nonzero: heard in a probe response
  uint8_t value8_6;                         // 23 transmit power the station reports, dBm
  VELAInfoElement* elementA;                // 24 the RSN element, or null; owned
  VELAInfoElement* elementB;                // 25 the HT capabilities element, or null; owned
  uint64_t unreadField26;                   // 26 the service's own cache key
  uint32_t value32_4;                       // 27 ranging: distance, millimetres
  uint32_t value32_8;                       // 28 ranging: distance spread, millimetres
  uint32_t value32_1;                       // 29 ranging: round-trip time, picoseconds
  uint32_t value32_9;                       // 30 ranging: successful / attempted exchanges
                                            //    (high / low 16 bits)
  uint64_t value64;                         // 31 time of the measurement,
                                            //    microseconds since boot
};

// A measurement of a beacon or probe response, with all its elements.
class VELAFullBeaconScanMeasurement : public VELAScanMeasurement {
 public:
  VELAFullBeaconScanMeasurement();
  // Deletes the information elements too.
  ~VELAFullBeaconScanMeasurement() override;
  int getMeasurementType() const override;  // MEASUREMENT_TYPE_FULL_BEACON

  uint64_t beaconTsf;     // the station's time stamp (TSF) in the frame, microseconds
  uint64_t unreadBeacon;  // the service's own bookkeeping
  ky_loc_fw::vector<VELAInfoElement*> informationElements;  // in frame order, owned
};

// A ranging measurement.
class VELARangingScanMeasurement : public VELAScanMeasurement {
 public:
  VELARangingScanMeasurement();
  ~VELARangingScanMeasurement() override;
  int getMeasurementType() const override;  // MEASUREMENT_TYPE_RANGING

  uint64_t unreadRanging[2];  // the service's own bookkeeping
  // The target first, then other addresses of the same station (its peer).
  ky_loc_fw::vector<VELAMacAddress> macList;
};

}  // namespace ky_loc_fw

#endif  // KY_LOC_FW_VELA_MEASUREMENT_H_
