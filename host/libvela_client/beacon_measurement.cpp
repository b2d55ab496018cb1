#include "beacon_measurement.h"

#include <cstring>
#include <new>
#include <vector>

#include "information_elements.h"
#include "neighbourhood.h"

namespace ky_loc_fw {
namespace vela_sim {

namespace {

constexpr uint8_t kIdTim = 5;
constexpr uint8_t kIdTpcReport = 35;
constexpr uint8_t kIdHtCapabilities = 45;
constexpr uint8_t kIdRsn = 48;
constexpr uint8_t kIdHtOperation = 61;
constexpr uint8_t kIdVhtCapabilities = 191;
constexpr uint8_t kIdVhtOperation = 192;
constexpr uint8_t kIdExtension = 255;
constexpr uint8_t kExtHeCapabilities = 35;
constexpr uint8_t kWpaPrefix[] = {0x00, 0x50, 0xf2, 0x01};
constexpr uint16_t kCapabilityEss = 0x0001;
constexpr uint16_t kCapabilityPrivacy = 0x0010;
constexpr uint16_t kCapabilityShortSlot = 0x0400;
constexpr int kNoiseFloor24 = -95;
constexpr int kNoiseFloor5 = -92;

uint32_t Word(int value) {
  return static_cast<uint32_t>(value);
}

uint16_t ChannelCentre(uint8_t channel_index) {
  return channel_index == 0 ? 0 : static_cast<uint16_t>(5000 + 5 * channel_index);
}

// SAE (8), FT-SAE (9) or SAE-EXT (24) among the RSN element's key managements.
bool RsnOffersSae(const uint8_t* data, size_t len) {
  size_t pos = 2 + 4;  // version, group cipher
  if (len < pos + 2) return false;
  const size_t pairwise = data[pos] | data[pos + 1] << 8;
  pos += 2 + 4 * pairwise;
  if (len < pos + 2) return false;
  const size_t akms = data[pos] | data[pos + 1] << 8;
  pos += 2;
  for (size_t i = 0; i < akms && pos + 4 * (i + 1) <= len; ++i) {
    const uint8_t type = data[pos + 4 * i + 3];
    if (type == 8 || type == 9 || type == 24) return true;
  }
  return false;
}

VELAInfoElement* CopyElement(const std::vector<uint8_t>& ies, const ElementRef* e) {
  if (e == nullptr) return nullptr;
  return new (std::nothrow) VELAInfoElement(e->id, ies.data() + e->offset, e->len);
}

uint64_t Mix(uint64_t x) {
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdULL;
  x ^= x >> 33;
  return x;
}

// Security and capability field, as the elements and the scenario give them.
void DeriveSecurity(const ScenarioAp& ap, const std::vector<ElementRef>& elements, ApTraits* t) {
  const ElementRef* rsn = FindElement(elements, kIdRsn);
  const bool wpa = FindVendorElement(elements, ap.ies, kWpaPrefix, sizeof(kWpaPrefix)) != nullptr;
  const bool privacy = ap.capability >= 0 && (ap.capability & kCapabilityPrivacy) != 0;
  if (ap.security >= 0) {
    t->security = ap.security;
  } else if (rsn != nullptr) {
    t->security = RsnOffersSae(ap.ies.data() + rsn->offset, rsn->len) ? 4 : 3;
  } else if (wpa) {
    t->security = 2;
  } else {
    t->security = privacy ? 1 : 0;
  }
  if (ap.capability >= 0) {
    t->capability = static_cast<uint16_t>(ap.capability);
  } else {
    t->capability = kCapabilityEss;
    if (t->security != 0) t->capability |= kCapabilityPrivacy;
    if (ap.band == 0) t->capability |= kCapabilityShortSlot;
  }
}

ApTraits DeriveTraits(const ScenarioAp& ap, const std::vector<ElementRef>& elements) {
  ApTraits t;
  const uint8_t* bytes = ap.ies.data();
  DeriveSecurity(ap, elements, &t);
  const ElementRef* ht_caps = FindElement(elements, kIdHtCapabilities);
  bool he = false;
  for (const ElementRef& e : elements) {
    if (e.id == kIdExtension && e.len >= 1 && bytes[e.offset] == kExtHeCapabilities) he = true;
  }
  if (he) {
    t.phy = 3;
  } else if (FindElement(elements, kIdVhtCapabilities) != nullptr) {
    t.phy = 2;
  } else if (ht_caps != nullptr) {
    t.phy = 1;
  }

  t.centre0Mhz = static_cast<uint16_t>(ap.frequencyMhz);
  const ElementRef* ht_op = FindElement(elements, kIdHtOperation);
  const ElementRef* vht_op = FindElement(elements, kIdVhtOperation);
  if (vht_op != nullptr && vht_op->len >= 3 && bytes[vht_op->offset] >= 1) {
    t.width = bytes[vht_op->offset] == 1 ? 2 : 3;
    if (bytes[vht_op->offset + 1] != 0) t.centre0Mhz = ChannelCentre(bytes[vht_op->offset + 1]);
    t.centre1Mhz = ChannelCentre(bytes[vht_op->offset + 2]);
  } else if (ht_op != nullptr && ht_op->len >= 2 && (bytes[ht_op->offset + 1] & 0x04) != 0) {
    const uint8_t offset = bytes[ht_op->offset + 1] & 0x03;
    if (offset == 1 || offset == 3) {
      t.width = 1;
      t.centre0Mhz =
          static_cast<uint16_t>(offset == 1 ? ap.frequencyMhz + 10 : ap.frequencyMhz - 10);
    }
  }

  if (ht_caps != nullptr && ht_caps->len >= 7) {
    uint8_t streams = 0;
    for (size_t i = 3; i < 7; ++i) {
      if (bytes[ht_caps->offset + i] != 0) ++streams;
    }
    t.spatialStreams = streams == 0 ? 1 : streams;
  }
  const ElementRef* tim = FindElement(elements, kIdTim);
  if (tim != nullptr && tim->len >= 2 && bytes[tim->offset + 1] != 0) {
    t.dtimPeriod = bytes[tim->offset + 1];
  }
  const ElementRef* tpc = FindElement(elements, kIdTpcReport);
  t.txPowerDbm =
      static_cast<int8_t>(tpc != nullptr && tpc->len >= 1 ? bytes[tpc->offset] : ap.txPowerDbm);
  return t;
}

}  // namespace

ApFrame ReadFrame(const ScenarioAp& ap) {
  ApFrame frame;
  SplitElements(ap.ies, &frame.elements);  // checked by the parser
  frame.traits = DeriveTraits(ap, frame.elements);
  return frame;
}

VELAMeasurementDetail* MeasureChain(uint32_t chain, int rssi_dbm, unsigned int frequency_mhz,
                                    uint64_t when_us, uint32_t frames) {
  auto* d = new (std::nothrow) VELAMeasurementDetail();
  if (d == nullptr) return nullptr;
  const int noise = frequency_mhz >= 5000 ? kNoiseFloor5 : kNoiseFloor24;
  const int rssi = rssi_dbm - 3 * static_cast<int>(chain);
  d->infoValue32_1 = chain;
  d->infoValue32_2 = Word(rssi);
  d->infoValue32_3 = Word(noise);
  static const char* const kTags[] = {"ANT0-MAIN", "ANT1-DIV"};
  const char* tag = kTags[chain % 2];
  std::memcpy(d->infoBlock, tag, std::strlen(tag));  // the rest stays zero
  d->infoValue16_1 = static_cast<uint16_t>(40 + (rssi < -70 ? 20 : 0) + chain);
  d->infoValue32_4 = static_cast<uint16_t>(frequency_mhz);
  d->infoValue16_2 = frames;
  d->infoValue32_5 = frames > 1 ? 110000 : 30000;
  d->infoValue32_6 = Word((rssi - noise) * 10);
  d->infoValue32_7 = rssi < -85 ? 1 : 0;
  d->infoValue8_1 = 0;  // management frames go out at the lowest rate
  d->infoValue8_2 = 1;
  d->infoValue8_3 = 0;
  d->infoValue8_4 = rssi > -30 ? 1 : 0;
  d->infoValue32_8 = static_cast<uint32_t>(when_us / 1000);
  d->infoValue8_5 = chain == 0 ? 3 : 2;
  d->infoValue8_6 = chain == 0 ? 0 : 1;
  d->infoValue8_7 = frequency_mhz < 5000 ? 1 : 0;
  d->infoValue8_8 = 0;
  return d;
}

VELAFullBeaconScanMeasurement* MeasureBeacon(const ScenarioAp& ap, const ApFrame& frame,
                                             const BeaconContext& context) {
  auto* m = new (std::nothrow) VELAFullBeaconScanMeasurement();
  if (m == nullptr) return nullptr;
  const ApTraits& t = frame.traits;
  const std::vector<ElementRef>& elements = frame.elements;
  const uint32_t frames = context.passive ? 2 : 1;
  // The access point's own clock: it booted some days before the receiver.
  const uint64_t tsf = context.whenUs + Mix(ap.bssid) % (10ULL * 24 * 3600 * 1000000);

  m->bssid = FromMac48(ap.bssid);
  m->value32_2 = ap.frequencyMhz;
  m->unreadField3 = context.sequence;
  m->value8_8 = static_cast<uint8_t>(ap.channel);
  m->value8_9 = static_cast<uint8_t>(ap.band);
  m->value32_5 = Word(ap.rssiDbm);
  m->value32_6 = t.capability;
  m->ssid.setSSID(ap.ssid.data(), static_cast<int>(ap.ssid.size()));
  m->value8_7 = t.width;
  m->value8_3 = t.phy;
  for (uint32_t chain = 0; chain < 2; ++chain) {
    VELAMeasurementDetail* d =
        MeasureChain(chain, ap.rssiDbm, ap.frequencyMhz, context.whenUs, frames);
    if (d != nullptr && m->details.push_back(d) != 0) delete d;
  }
  m->value32_7 = ap.intervalTu;
  m->value8_1 = t.spatialStreams;
  m->value8_2 = static_cast<uint8_t>(t.security);
  m->value32_3 = context.ageMs;
  m->value16_1 = t.centre0Mhz;
  m->value16_2 = t.centre1Mhz;
  m->value32_10 = frames;
  uint8_t fixed[12];
  for (int i = 0; i < 8; ++i) fixed[i] = static_cast<uint8_t>(tsf >> (8 * i));
  fixed[8] = static_cast<uint8_t>(ap.intervalTu);
  fixed[9] = static_cast<uint8_t>(ap.intervalTu >> 8);
  fixed[10] = static_cast<uint8_t>(t.capability);
  fixed[11] = static_cast<uint8_t>(t.capability >> 8);
  for (uint8_t b : fixed) m->rawBytes.push_back(static_cast<signed char>(b));
  m->value16_3 = ap.probe ? 0x0050 : 0x0080;
  m->value16_4 = static_cast<uint16_t>((context.sequence & 0xFFF) << 4);
  m->value8_4 = t.dtimPeriod;
  m->value8_5 = ap.probe ? 1 : 0;
  m->value8_6 = static_cast<uint8_t>(t.txPowerDbm);
  m->elementA = CopyElement(ap.ies, FindElement(elements, kIdRsn));
  m->elementB = CopyElement(ap.ies, FindElement(elements, kIdHtCapabilities));
  m->unreadField26 = ap.bssid;
  m->value64 = context.whenUs;

  m->beaconTsf = tsf;
  m->unreadBeacon = 24 + 12 + ap.ies.size() + 4;  // length of the frame on air
  for (const ElementRef& e : elements) {
    VELAInfoElement* copy = CopyElement(ap.ies, &e);
    if (copy != nullptr && m->informationElements.push_back(copy) != 0) delete copy;
  }
  return m;
}

}  // namespace vela_sim
}  // namespace ky_loc_fw
