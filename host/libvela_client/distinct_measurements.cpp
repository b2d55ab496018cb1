#include "distinct_measurements.h"

#include <string>

namespace ky_loc_fw {
namespace vela_sim {

const uint8_t kVendorOui[3] = {TESK_VENDOR_OUI_BYTES};

namespace {

class OddTypeResponse : public VELAResponse {
 public:
  OddTypeResponse(unsigned int id, int type) : VELAResponse(id), type_(type) {}
  int getResponseType() const override { return type_; }

 private:
  int type_;
};

class OddTypeMeasurement : public VELAScanMeasurement {
 public:
  explicit OddTypeMeasurement(int type) : type_(type) {}
  int getMeasurementType() const override { return type_; }

 private:
  int type_;
};

// Hands out consecutive values, so that no two fields of one measurement
// share a value of the same width.
class Counter {
 public:
  explicit Counter(uint32_t seed) : next_(seed * 1000u + 1) {}
  uint32_t u32() { return next_++ * 0x01010101u; }
  uint16_t u16() { return static_cast<uint16_t>(next_++ * 0x0101u); }
  uint8_t u8() { return static_cast<uint8_t>(next_++); }
  uint64_t u64() {
    const uint64_t v = next_++;
    return v << 32 | (v * 0x01010101u);
  }

 private:
  uint32_t next_;
};

std::vector<uint8_t> Bytes(Counter* c, size_t n) {
  std::vector<uint8_t> out(n);
  for (uint8_t& b : out) b = c->u8();
  return out;
}

VELAMeasurementDetail* DistinctDetail(Counter* c) {
  auto* d = new VELAMeasurementDetail();
  d->infoValue32_1 = c->u32();
  d->infoValue32_2 = c->u32();
  d->infoValue32_3 = c->u32();
  d->unreadDetail = c->u32();
  for (uint8_t& b : d->infoBlock) b = c->u8();
  d->infoValue16_1 = c->u16();
  d->infoValue32_4 = c->u16();
  d->infoValue16_2 = c->u32();
  d->infoValue32_5 = c->u32();
  d->infoValue32_6 = c->u32();
  d->infoValue32_7 = c->u32();
  d->infoValue8_1 = c->u8();
  d->infoValue8_2 = c->u8();
  d->infoValue8_3 = c->u8();
  d->infoValue8_4 = c->u8();
  d->infoValue32_8 = c->u32();
  d->infoValue8_5 = c->u8();
  d->infoValue8_6 = c->u8();
  d->infoValue8_7 = c->u8();
  d->infoValue8_8 = c->u8();
  return d;
}

void AddElement(ky_loc_fw::vector<VELAInfoElement*>* list, uint8_t id,
                const std::vector<uint8_t>& data) {
  VELAInfoElement* e = NewElement(id, data);
  if (list->push_back(e) != 0) delete e;
}

VELAMacAddress Mac(uint32_t hi24, uint32_t lo24) {
  VELAMacAddress mac;
  mac.setMac(static_cast<int>(hi24), static_cast<int>(lo24));
  return mac;
}

VELASsid Ssid(const std::string& bytes) {
  VELASsid ssid;
  ssid.setSSID(reinterpret_cast<const unsigned char*>(bytes.data()),
               static_cast<int>(bytes.size() > 32 ? 32 : bytes.size()));
  return ssid;
}

}  // namespace

VELAResponse* NewResponseOfType(unsigned int id, int type) {
  return new OddTypeResponse(id, type);
}

VELAScanMeasurement* NewMeasurementOfType(int type) {
  return new OddTypeMeasurement(type);
}

VELAInfoElement* NewElement(uint8_t id, const std::vector<uint8_t>& data) {
  const size_t len = data.size() > 255 ? 255 : data.size();
  return new VELAInfoElement(id, data.data(), static_cast<uint8_t>(len));
}

void FillDistinct(VELAScanMeasurement* m, uint32_t seed) {
  Counter c(seed);
  m->bssid = Mac(c.u32() & 0xFFFFFF, c.u32() & 0xFFFFFF);
  m->value32_2 = c.u32();
  m->unreadField3 = c.u32();
  m->value8_8 = c.u8();
  m->value8_9 = c.u8();
  m->value32_5 = c.u32();
  m->value32_6 = c.u32();
  m->ssid = Ssid("ssid-" + std::to_string(seed));
  m->value8_7 = c.u8();
  m->value8_3 = c.u8();
  for (int i = 0; i < 2; ++i) {
    VELAMeasurementDetail* d = DistinctDetail(&c);
    if (m->details.push_back(d) != 0) delete d;
  }
  m->value32_7 = c.u32();
  m->value8_1 = c.u8();
  m->value8_2 = c.u8();
  m->value32_3 = c.u32();
  m->value16_1 = c.u16();
  m->value16_2 = c.u16();
  m->value32_10 = c.u32();
  for (uint8_t b : Bytes(&c, 12)) m->rawBytes.push_back(static_cast<signed char>(b));
  m->value16_3 = c.u16();
  m->value16_4 = c.u16();
  m->value8_4 = c.u8();
  m->value8_5 = c.u8();
  m->value8_6 = c.u8();
  delete m->elementA;
  delete m->elementB;
  m->elementA = NewElement(48, Bytes(&c, 20));
  m->elementB = NewElement(45, Bytes(&c, 26));
  m->unreadField26 = c.u64();
  m->value32_4 = c.u32();
  m->value32_8 = c.u32();
  m->value32_1 = c.u32();
  m->value32_9 = c.u32();
  m->value64 = c.u64();

  if (m->getMeasurementType() == VELAScanMeasurement::MEASUREMENT_TYPE_FULL_BEACON) {
    auto* beacon = static_cast<VELAFullBeaconScanMeasurement*>(m);
    beacon->beaconTsf = c.u64();
    beacon->unreadBeacon = c.u64();
    const std::string name = "ssid-" + std::to_string(seed);
    AddElement(&beacon->informationElements, 0, std::vector<uint8_t>(name.begin(), name.end()));
    AddElement(&beacon->informationElements, 3, {static_cast<uint8_t>(1 + seed % 13)});
    std::vector<uint8_t> own(kVendorOui, kVendorOui + 3);
    for (uint8_t b : Bytes(&c, 27)) own.push_back(b);
    AddElement(&beacon->informationElements, 221, own);
    std::vector<uint8_t> other = {0x00, 0x50, 0xf2, 0x02};
    for (uint8_t b : Bytes(&c, 20)) other.push_back(b);
    AddElement(&beacon->informationElements, 221, other);
  } else if (m->getMeasurementType() == VELAScanMeasurement::MEASUREMENT_TYPE_RANGING) {
    auto* ranging = static_cast<VELARangingScanMeasurement*>(m);
    ranging->unreadRanging[0] = c.u64();
    ranging->unreadRanging[1] = c.u64();
    ranging->macList.push_back(m->bssid);
    ranging->macList.push_back(Mac(c.u32() & 0xFFFFFF, c.u32() & 0xFFFFFF));
  }
}

}  // namespace vela_sim
}  // namespace ky_loc_fw
