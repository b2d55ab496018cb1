#include "ky_loc_fw/vela_request.h"

#include <new>

namespace ky_loc_fw {

namespace {

bool ValidBand(VELADiscoveryScanRequest::eBand band) {
  return band == VELADiscoveryScanRequest::BAND_2_4_GHZ ||
         band == VELADiscoveryScanRequest::BAND_5_GHZ || band == VELADiscoveryScanRequest::BAND_ALL;
}

bool ValidScanType(VELADiscoveryScanRequest::eScanType type) {
  return type == VELADiscoveryScanRequest::SCAN_TYPE_ACTIVE ||
         type == VELADiscoveryScanRequest::SCAN_TYPE_PASSIVE;
}

bool ValidMode(VELADiscoveryScanRequest::eRequestMode mode) {
  return mode == VELADiscoveryScanRequest::REQUEST_MODE_NORMAL ||
         mode == VELADiscoveryScanRequest::REQUEST_MODE_HIGH_ACCURACY;
}

}  // namespace

VELARequest::VELARequest(unsigned int id) : requestId(id) {}

VELARequest::~VELARequest() = default;

VELADiscoveryScanRequest::VELADiscoveryScanRequest(unsigned int id, eRequestKind requestKind)
    : VELARequest(id), kind(requestKind) {}

VELADiscoveryScanRequest::~VELADiscoveryScanRequest() = default;

int VELADiscoveryScanRequest::getRequestType() const {
  return REQUEST_TYPE_DISCOVERY_SCAN;
}

VELADiscoveryScanRequest* VELADiscoveryScanRequest::Create(
    unsigned int id, eRequestKind requestKind,
    const ky_loc_fw::vector<VELAChannelInfo>* channelList, eBand scanBand, eScanType type,
    const Settings& settings) {
  if (!ValidScanType(type)) return nullptr;
  if (channelList == nullptr && !ValidBand(scanBand)) return nullptr;
  if (channelList != nullptr && channelList->getCount() == 0) return nullptr;
  auto* request = new (std::nothrow) VELADiscoveryScanRequest(id, requestKind);
  if (request == nullptr) return nullptr;
  if (channelList != nullptr) {
    request->channels = *channelList;
    if (request->channels.getCount() != channelList->getCount()) {  // copy ran out of memory
      delete request;
      return nullptr;
    }
    request->band = BAND_ALL;
  } else {
    request->band = scanBand;
  }
  request->scanType = type;
  request->ageFilter = settings.ageFilter;
  request->fallbackParam = settings.fallbackParam;
  request->timeout = settings.timeout;
  request->requestMode = settings.requestMode;
  request->cacheFlag = settings.cacheFlag;
  request->scanFlag = settings.scanFlag;
  return request;
}

VELADiscoveryScanRequest* VELADiscoveryScanRequest::createFreshScanRequest(
    unsigned int id, eBand band, eScanType scanType, unsigned int ageFilter, long timeout,
    eRequestMode requestMode, bool scanFlag) {
  if (!ValidMode(requestMode)) return nullptr;
  return Create(id, KIND_FRESH_SCAN, nullptr, band, scanType,
                {ageFilter, 0, timeout, requestMode, false, scanFlag});
}

VELADiscoveryScanRequest* VELADiscoveryScanRequest::createFreshScanRequest(
    unsigned int id, ky_loc_fw::vector<VELAChannelInfo>& channels, eScanType scanType,
    unsigned int ageFilter, long timeout, eRequestMode requestMode, bool scanFlag) {
  if (!ValidMode(requestMode)) return nullptr;
  return Create(id, KIND_FRESH_SCAN, &channels, BAND_ALL, scanType,
                {ageFilter, 0, timeout, requestMode, false, scanFlag});
}

VELADiscoveryScanRequest* VELADiscoveryScanRequest::createCacheOnlyRequest(
    unsigned int id, eBand band, unsigned int ageFilter, long timeout, bool cacheFlag) {
  return Create(id, KIND_CACHE_ONLY, nullptr, band, SCAN_TYPE_ACTIVE,
                {ageFilter, 0, timeout, REQUEST_MODE_NORMAL, cacheFlag, false});
}

VELADiscoveryScanRequest* VELADiscoveryScanRequest::createCacheOnlyRequest(
    unsigned int id, ky_loc_fw::vector<VELAChannelInfo>& channels, unsigned int ageFilter,
    long timeout, bool cacheFlag) {
  return Create(id, KIND_CACHE_ONLY, &channels, BAND_ALL, SCAN_TYPE_ACTIVE,
                {ageFilter, 0, timeout, REQUEST_MODE_NORMAL, cacheFlag, false});
}

VELADiscoveryScanRequest* VELADiscoveryScanRequest::createCacheFallbackRequest(
    unsigned int id, eBand band, eScanType scanType, unsigned int ageFilter,
    unsigned int fallbackParam, long timeout, bool cacheFlag, bool scanFlag) {
  return Create(id, KIND_CACHE_FALLBACK, nullptr, band, scanType,
                {ageFilter, fallbackParam, timeout, REQUEST_MODE_NORMAL, cacheFlag, scanFlag});
}

VELADiscoveryScanRequest* VELADiscoveryScanRequest::createCacheFallbackRequest(
    unsigned int id, ky_loc_fw::vector<VELAChannelInfo>& channels, eScanType scanType,
    unsigned int ageFilter, unsigned int fallbackParam, long timeout, bool cacheFlag,
    bool scanFlag) {
  return Create(id, KIND_CACHE_FALLBACK, &channels, BAND_ALL, scanType,
                {ageFilter, fallbackParam, timeout, REQUEST_MODE_NORMAL, cacheFlag, scanFlag});
}

VELARangingScanRequest::VELARangingScanRequest(unsigned int id,
                                               ky_loc_fw::vector<VELANodeInfo>& targets, long ts)
    : VELARequest(id), timestamp(ts) {
  nodes = targets;
}

VELARangingScanRequest::~VELARangingScanRequest() = default;

int VELARangingScanRequest::getRequestType() const {
  return REQUEST_TYPE_RANGING_SCAN;
}

VELAPeriodicRangingScanRequest::VELAPeriodicRangingScanRequest(
    unsigned int id, ky_loc_fw::vector<VELAPeriodicNodeInfo>& targets, long ts)
    : VELARequest(id), timestamp(ts) {
  nodes = targets;
}

VELAPeriodicRangingScanRequest::~VELAPeriodicRangingScanRequest() = default;

int VELAPeriodicRangingScanRequest::getRequestType() const {
  return REQUEST_TYPE_PERIODIC_RANGING_SCAN;
}

}  // namespace ky_loc_fw
