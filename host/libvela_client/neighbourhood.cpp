#include "neighbourhood.h"

#include <time.h>

#include <algorithm>
#include <new>

#include "beacon_measurement.h"

namespace ky_loc_fw {
namespace vela_sim {

namespace {

using Request = VELADiscoveryScanRequest;

// Cache answers need no radio time.
constexpr uint32_t kCacheLatencyDivisor = 10;
constexpr unsigned int kDefaultRangingFrequency = 2437;
constexpr uint64_t kNeverSeen = UINT64_MAX;

bool SameSsid(const VELASsid& filter, const std::vector<uint8_t>& ssid) {
  unsigned char bytes[VELASsid::kMaxLength];
  int len = 0;
  if (filter.getSSID(bytes, &len) != 0) return false;
  return static_cast<size_t>(len) == ssid.size() && std::equal(ssid.begin(), ssid.end(), bytes);
}

uint64_t Mix(uint64_t x) {
  x ^= x >> 31;
  x *= 0x9e3779b97f4a7c15ULL;
  x ^= x >> 29;
  return x;
}

uint8_t WidthFromBandwidth(VELANodeInfo::eBandwidth bandwidth) {
  switch (bandwidth) {
    case VELANodeInfo::BANDWIDTH_40MHZ:
      return 1;
    case VELANodeInfo::BANDWIDTH_80MHZ:
      return 2;
    case VELANodeInfo::BANDWIDTH_160MHZ:
    case VELANodeInfo::BANDWIDTH_80P80MHZ:
      return 3;
    default:
      return 0;
  }
}

unsigned int FrequencyChannel(unsigned int mhz, uint8_t* band) {
  *band = mhz >= 5000 ? 1 : 0;
  VELAChannelInfo info(mhz);
  return info.getChannel();
}

void Append(ky_loc_fw::vector<VELAScanMeasurement*>* list, VELAScanMeasurement* m) {
  if (m != nullptr && list->push_back(m) != 0) delete m;
}

}  // namespace

uint64_t NowUs() {
  timespec ts{};
  clock_gettime(CLOCK_BOOTTIME, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000 + static_cast<uint64_t>(ts.tv_nsec) / 1000;
}

Mac48 ToMac48(const VELAMacAddress& mac) {
  return static_cast<Mac48>(mac.getHi24()) << 24 | mac.getLo24();
}

VELAMacAddress FromMac48(Mac48 mac) {
  VELAMacAddress out;
  out.setMac(static_cast<int>(mac >> 24 & 0xFFFFFF), static_cast<int>(mac & 0xFFFFFF));
  return out;
}

Neighbourhood::Neighbourhood(const Scenario& scenario, uint64_t now_us)
    : scenario_(scenario), last_seen_us_(scenario.aps.size(), kNeverSeen) {
  frames_.reserve(scenario_.aps.size());
  for (size_t i = 0; i < scenario_.aps.size(); ++i) {
    frames_.push_back(ReadFrame(scenario_.aps[i]));
    if (scenario_.aps[i].cached) last_seen_us_[i] = now_us;
  }
}

bool Neighbourhood::Scanned(const ScenarioAp& ap, const SentRequest& request) const {
  if (request.hasChannels) {
    for (unsigned int value : request.channels) {
      if (VELAChannelInfo(value).getChannel() == ap.channel) return true;
    }
    return false;
  }
  switch (request.band) {
    case Request::BAND_2_4_GHZ:
      return ap.band == 0;
    case Request::BAND_5_GHZ:
      return ap.band == 1;
    default:
      return true;
  }
}

bool Neighbourhood::Reportable(const ScenarioAp& ap, const SentRequest& request,
                               bool hidden_allowed) const {
  if (ap.hidden && !hidden_allowed) return false;
  if (!request.ssidFilter.empty() &&
      std::none_of(request.ssidFilter.begin(), request.ssidFilter.end(),
                   [&](const VELASsid& s) { return SameSsid(s, ap.ssid); })) {
    return false;
  }
  if (!request.bssidFilter.empty() &&
      std::none_of(request.bssidFilter.begin(), request.bssidFilter.end(),
                   [&](const VELAMacAddress& m) { return ToMac48(m) == ap.bssid; })) {
    return false;
  }
  return true;
}

std::vector<size_t> Neighbourhood::CachedMatches(const SentRequest& request, uint64_t now_us,
                                                 bool hidden_allowed,
                                                 std::vector<uint32_t>* ages_ms) const {
  std::vector<size_t> matches;
  ages_ms->clear();
  for (size_t i = 0; i < scenario_.aps.size(); ++i) {
    const ScenarioAp& ap = scenario_.aps[i];
    const uint64_t seen_us = last_seen_us_[i];
    if (seen_us == kNeverSeen || !Scanned(ap, request) ||
        !Reportable(ap, request, hidden_allowed)) {
      continue;
    }
    const uint64_t age_us = now_us > seen_us ? now_us - seen_us : 0;
    if (request.ageFilter != 0 && age_us > static_cast<uint64_t>(request.ageFilter) * 1000) {
      continue;
    }
    matches.push_back(i);
    ages_ms->push_back(static_cast<uint32_t>(std::min<uint64_t>(age_us / 1000, UINT32_MAX)));
  }
  return matches;
}

Answer Neighbourhood::FreshAnswer(const SentRequest& request, uint64_t now_us,
                                  bool hidden_allowed) {
  Answer answer;
  auto* response = new (std::nothrow) VELADiscoveryScanResponse(request.requestId);
  if (response == nullptr) return answer;
  answer.response.reset(response);
  answer.delayMs = scenario_.latencyMs;
  response->scanSource = VELADiscoveryScanResponse::SCAN_SOURCE_FRESH;
  if (request.timeout > 0 && static_cast<long>(scenario_.latencyMs) > request.timeout) {
    answer.delayMs = static_cast<uint32_t>(request.timeout);
    response->scanStatus = VELAResponse::SCAN_STATUS_TIMEOUT;
    response->scanTimestamp = now_us + static_cast<uint64_t>(request.timeout) * 1000;
    return answer;
  }
  const uint64_t done_us = now_us + static_cast<uint64_t>(scenario_.latencyMs) * 1000;
  response->scanTimestamp = done_us;
  for (size_t i = 0; i < scenario_.aps.size(); ++i) {
    const ScenarioAp& ap = scenario_.aps[i];
    if (!Scanned(ap, request)) continue;
    last_seen_us_[i] = done_us;
    if (!Reportable(ap, request, hidden_allowed)) continue;
    BeaconContext context;
    context.whenUs = done_us;
    context.sequence = ++sequence_;
    context.passive = request.scanType == Request::SCAN_TYPE_PASSIVE;
    Append(&response->measurements, MeasureBeacon(ap, frames_[i], context));
  }
  return answer;
}

Answer Neighbourhood::AnswerDiscovery(const SentRequest& request, uint64_t now_us) {
  if (request.kind == Request::KIND_FRESH_SCAN) {
    return FreshAnswer(request, now_us, request.scanFlag);
  }
  std::vector<uint32_t> ages;
  const std::vector<size_t> cached = CachedMatches(request, now_us, request.cacheFlag, &ages);
  if (request.kind == Request::KIND_CACHE_FALLBACK &&
      cached.size() < std::max<size_t>(1, request.fallbackParam)) {
    return FreshAnswer(request, now_us, request.scanFlag);
  }
  Answer answer;
  auto* response = new (std::nothrow) VELADiscoveryScanResponse(request.requestId);
  if (response == nullptr) return answer;
  answer.response.reset(response);
  answer.delayMs = scenario_.latencyMs / kCacheLatencyDivisor;
  response->scanSource = VELADiscoveryScanResponse::SCAN_SOURCE_CACHE;
  response->scanTimestamp = now_us;
  for (size_t i = 0; i < cached.size(); ++i) {
    BeaconContext context;
    context.whenUs = now_us - static_cast<uint64_t>(ages[i]) * 1000;
    context.ageMs = ages[i];
    context.sequence = ++sequence_;
    Append(&response->measurements,
           MeasureBeacon(scenario_.aps[cached[i]], frames_[cached[i]], context));
  }
  return answer;
}

VELAScanMeasurement* Neighbourhood::MeasureRange(const VELANodeInfo& node, uint64_t when_us) {
  const Mac48 mac = ToMac48(node.mac);
  const ScenarioRange* range = nullptr;
  for (const ScenarioRange& r : scenario_.ranges) {
    if (r.mac == mac) range = &r;
  }
  const ScenarioAp* ap = nullptr;
  for (const ScenarioAp& a : scenario_.aps) {
    if (a.bssid == mac) ap = &a;
  }
  const uint64_t hash = Mix(mac);
  const uint32_t distance_mm = range != nullptr && range->distanceMm != 0
                                   ? range->distanceMm
                                   : 1000 + static_cast<uint32_t>(hash % 29000);
  int rssi = -35 - static_cast<int>(distance_mm / 500);
  if (ap != nullptr) rssi = ap->rssiDbm;
  if (range != nullptr && range->rssiDbm != 0) rssi = range->rssiDbm;
  rssi = std::max(rssi, -100);
  unsigned int frequency = node.nodeValue1;
  if (frequency == 0) frequency = ap != nullptr ? ap->frequencyMhz : kDefaultRangingFrequency;

  const bool plain = range != nullptr && range->plain;
  VELARangingScanMeasurement* ranging = nullptr;
  VELAScanMeasurement* m;
  if (plain) {
    m = new (std::nothrow) VELAScanMeasurement();
  } else {
    ranging = new (std::nothrow) VELARangingScanMeasurement();
    m = ranging;
  }
  if (m == nullptr) return nullptr;
  m->bssid = node.mac;
  m->value32_2 = frequency;
  m->unreadField3 = ++sequence_;
  m->value8_8 = static_cast<uint8_t>(FrequencyChannel(frequency, &m->value8_9));
  m->value32_5 = static_cast<uint32_t>(rssi);
  if (ap != nullptr) m->ssid.setSSID(ap->ssid.data(), static_cast<int>(ap->ssid.size()));
  m->value8_7 = WidthFromBandwidth(node.nodeEnum1);
  m->value8_3 = static_cast<uint8_t>(node.nodeEnum2);
  VELAMeasurementDetail* d = MeasureChain(0, rssi, frequency, when_us, 1);
  if (d != nullptr && m->details.push_back(d) != 0) delete d;
  m->value64 = when_us;
  m->unreadField26 = mac;
  if (ranging != nullptr) {
    const uint32_t spread =
        range != nullptr && range->spreadMm != 0 ? range->spreadMm : distance_mm / 20 + 1;
    const uint32_t attempted = node.ftmsPerBurst != 0 ? node.ftmsPerBurst : 8;
    const uint32_t succeeded = attempted - static_cast<uint32_t>(hash >> 32 & 1);
    m->value32_4 = distance_mm;
    m->value32_8 = spread;
    // Light covers 0.2998 mm per picosecond; the round trip doubles the way.
    m->value32_1 = static_cast<uint32_t>(static_cast<uint64_t>(distance_mm) * 20000 / 2998);
    m->value32_9 = (succeeded & 0xFFFF) << 16 | (attempted & 0xFFFF);
    ranging->unreadRanging[0] = when_us;
    ranging->unreadRanging[1] = hash;
    ranging->macList.push_back(node.mac);
    if (ToMac48(node.peerMac) != 0) ranging->macList.push_back(node.peerMac);
  }
  return m;
}

Answer Neighbourhood::AnswerRanging(const SentRequest& request, uint64_t now_us) {
  Answer answer;
  auto* response = new (std::nothrow) VELARangingScanResponse(request.requestId);
  if (response == nullptr) return answer;
  answer.response.reset(response);
  answer.delayMs = scenario_.latencyMs;
  const uint64_t when_us = now_us + static_cast<uint64_t>(scenario_.latencyMs) * 1000;
  for (const VELANodeInfo& node : request.nodes) {
    Append(&response->measurements, MeasureRange(node, when_us));
  }
  for (const VELAPeriodicNodeInfo& node : request.periodicNodes) {
    Append(&response->measurements, MeasureRange(node, when_us));
  }
  return answer;
}

}  // namespace vela_sim
}  // namespace ky_loc_fw
