#include "ky_loc_fw/vela_measurement.h"

#include <cstring>
#include <new>

namespace ky_loc_fw {

VELAInfoElement::VELAInfoElement() : id(0), len(0), data(nullptr) {}

VELAInfoElement::VELAInfoElement(uint8_t elementId, const uint8_t* bytes, uint8_t length)
    : id(elementId), len(0), data(nullptr) {
  if (length == 0 || bytes == nullptr) return;
  data = new (std::nothrow) uint8_t[length];
  if (data == nullptr) return;  // an element without data beats no element
  std::memcpy(data, bytes, length);
  len = length;
}

VELAInfoElement::~VELAInfoElement() {
  delete[] data;
}

VELAMeasurementDetail::VELAMeasurementDetail()
    : infoValue32_1(0),
      infoValue32_2(0),
      infoValue32_3(0),
      unreadDetail(0),
      infoBlock{},
      infoValue16_1(0),
      infoValue32_4(0),
      infoValue16_2(0),
      infoValue32_5(0),
      infoValue32_6(0),
      infoValue32_7(0),
      infoValue8_1(0),
      infoValue8_2(0),
      infoValue8_3(0),
      infoValue8_4(0),
      infoValue32_8(0),
      infoValue8_5(0),
      infoValue8_6(0),
      infoValue8_7(0),
      infoValue8_8(0) {}

VELAScanMeasurement::VELAScanMeasurement()
    : value32_2(0),
      unreadField3(0),
      value8_8(0),
      value8_9(0),
      value32_5(0),
      value32_6(0),
      value8_7(0),
      value8_3(0),
      value32_7(0),
      value8_1(0),
      value8_2(0),
      value32_3(0),
      value16_1(0),
      value16_2(0),
      value32_10(0),
      value16_3(0),
      value16_4(0),
      value8_4(0),
      value8_5(0),
      value8_6(0),
      elementA(nullptr),
      elementB(nullptr),
      unreadField26(0),
      value32_4(0),
      value32_8(0),
      value32_1(0),
      value32_9(0),
      value64(0) {}

VELAScanMeasurement::~VELAScanMeasurement() {
  for (uint32_t i = 0; i < details.getCount(); ++i) delete details[i];
  delete elementA;
  delete elementB;
}

int VELAScanMeasurement::getMeasurementType() const {
  return MEASUREMENT_TYPE_SCAN;
}

VELAFullBeaconScanMeasurement::VELAFullBeaconScanMeasurement() : beaconTsf(0), unreadBeacon(0) {}

VELAFullBeaconScanMeasurement::~VELAFullBeaconScanMeasurement() {
  for (uint32_t i = 0; i < informationElements.getCount(); ++i) delete informationElements[i];
}

int VELAFullBeaconScanMeasurement::getMeasurementType() const {
  return MEASUREMENT_TYPE_FULL_BEACON;
}

VELARangingScanMeasurement::VELARangingScanMeasurement() : unreadRanging{0, 0} {}

VELARangingScanMeasurement::~VELARangingScanMeasurement() = default;

int VELARangingScanMeasurement::getMeasurementType() const {
  return MEASUREMENT_TYPE_RANGING;
}

}  // namespace ky_loc_fw
