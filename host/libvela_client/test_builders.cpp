// Builders of vela_test_control.h: responses and measurements with chosen
// values.
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "ky_loc_fw/vela_test_control.h"

namespace ky_loc_fw {
namespace vela_test {

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
  VELAInfoElement* e = MakeElement(id, data);
  if (list->push_back(e) != 0) delete e;
}

}  // namespace

// VELASsid's stored state, field for field; the interface header keeps its
// fields private, and the layout test pins this order.
struct SsidState {
  uint8_t bytes[VELASsid::kMaxLength];
  int32_t length;
  bool valid;
};
static_assert(sizeof(SsidState) == sizeof(VELASsid), "VELASsid's fields");
static_assert(std::is_trivially_copyable<VELASsid>::value, "VELASsid is copied bytewise");

void SsidAccess::Set(VELASsid* ssid, const unsigned char* bytes, int length, bool valid) {
  SsidState state{};
  if (bytes != nullptr && length > 0) {
    std::memcpy(state.bytes, bytes,
                static_cast<size_t>(length < VELASsid::kMaxLength ? length : VELASsid::kMaxLength));
  }
  state.length = length;
  state.valid = valid;
  std::memcpy(static_cast<void*>(ssid), &state, sizeof state);
}

VELAResponse* MakeResponseOfType(unsigned int id, int type) {
  return new OddTypeResponse(id, type);
}

VELAScanMeasurement* MakeMeasurementOfType(int type) {
  return new OddTypeMeasurement(type);
}

VELAInfoElement* MakeElement(uint8_t id, const std::vector<uint8_t>& data) {
  const size_t len = data.size() > 255 ? 255 : data.size();
  return new VELAInfoElement(id, data.data(), static_cast<uint8_t>(len));
}

VELAMacAddress MakeMac(uint32_t hi24, uint32_t lo24) {
  VELAMacAddress mac;
  mac.setMac(static_cast<int>(hi24), static_cast<int>(lo24));
  return mac;
}

bool ParseMac(const std::string& text, VELAMacAddress* mac) {
  unsigned int o[6];
  char tail;
  if (text.size() != 17 || std::sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &o[0], &o[1],
                                       &o[2], &o[3], &o[4], &o[5], &tail) != 6) {
    return false;
  }
  *mac = MakeMac(o[0] << 16 | o[1] << 8 | o[2], o[3] << 16 | o[4] << 8 | o[5]);
  return true;
}

VELASsid MakeSsid(const std::string& bytes) {
  VELASsid ssid;
  ssid.setSSID(reinterpret_cast<const unsigned char*>(bytes.data()),
               static_cast<int>(bytes.size() > 32 ? 32 : bytes.size()));
  return ssid;
}

std::string SsidBytes(const VELASsid& ssid) {
  unsigned char buf[VELASsid::kMaxLength];
  int len = 0;
  if (ssid.getSSID(buf, &len) != 0) return std::string();
  return std::string(reinterpret_cast<const char*>(buf), static_cast<size_t>(len));
}

void FillDistinct(VELAScanMeasurement* m, uint32_t seed) {
  Counter c(seed);
  m->bssid = MakeMac(c.u32() & 0xFFFFFF, c.u32() & 0xFFFFFF);
  m->value32_2 = c.u32();
  m->unreadField3 = c.u32();
  m->value8_8 = c.u8();
  m->value8_9 = c.u8();
  m->value32_5 = c.u32();
  m->value32_6 = c.u32();
  m->ssid = MakeSsid("ssid-" + std::to_string(seed));
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
  m->elementA = MakeElement(48, Bytes(&c, 20));
  m->elementB = MakeElement(45, Bytes(&c, 26));
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
    ranging->macList.push_back(MakeMac(c.u32() & 0xFFFFFF, c.u32() & 0xFFFFFF));
  }
}

VELADiscoveryScanResponse* MakeDiscoveryResponse(unsigned int id, size_t count, uint32_t seed) {
  auto* response = new VELADiscoveryScanResponse(id);
  for (size_t i = 0; i < count; ++i) {
    auto* m = new VELAFullBeaconScanMeasurement();
    FillDistinct(m, seed + static_cast<uint32_t>(i));
    if (response->measurements.push_back(m) != 0) delete m;
  }
  return response;
}

VELARangingScanResponse* MakeRangingResponse(unsigned int id, size_t count, uint32_t seed) {
  auto* response = new VELARangingScanResponse(id);
  for (size_t i = 0; i < count; ++i) {
    auto* m = new VELARangingScanMeasurement();
    FillDistinct(m, seed + static_cast<uint32_t>(i));
    if (response->measurements.push_back(m) != 0) delete m;
  }
  return response;
}

}  // namespace vela_test
}  // namespace ky_loc_fw
