#include "scan/discovery_scan.h"

#include <cstddef>
#include <cstring>
#include <memory>

#include <tesk/interfaces.h>
#include <tesk/scan_records.h>
#include <tesk/scan_requests.h>

#include "ky_loc_fw/log.h"
#include "ky_loc_fw/vela_request.h"
#include "ky_loc_fw/vela_response.h"
#include "scan/marshal.h"
#include "scan/object_buffers.h"
#include "scan/pool_sizing.h"
#include "scan/response_data.h"
#include "scan/result_delivery.h"
#include "scan/scan_start.h"
#include "scan/vector.h"

using ky_loc_fw::VELAChannelInfo;
using ky_loc_fw::VELADiscoveryScanRequest;
using ky_loc_fw::VELADiscoveryScanResponse;
using ky_loc_fw::VELAFullBeaconScanMeasurement;
using ky_loc_fw::VELAMacAddress;
using ky_loc_fw::VELAResponse;
using ky_loc_fw::VELAScanMeasurement;
using ky_loc_fw::VELASsid;

namespace {

constexpr const char* kTag = "tesk";
constexpr int kDiscoveryResponseType = VELAResponse::RESPONSE_TYPE_DISCOVERY_SCAN;
constexpr int kFullBeaconType = VELAScanMeasurement::MEASUREMENT_TYPE_FULL_BEACON;

// The discovery response function: marshals the full beacons and makes one
// delivery to the client's callback, which the dispatcher holds for us.
void ResponseReceived(VELAResponse* response, Object callback) {
  if (response == nullptr || response->getResponseType() != kDiscoveryResponseType) {
    ky_loc_fw::log_warning(kTag, "DiscoveryScan: Bad response received\n");
    DeliverDiscovery(callback, DiscoveryResponseHeader{0, 0, kScanStatusBadResponse}, nullptr);
    return;
  }
  auto* discovery = static_cast<VELADiscoveryScanResponse*>(response);
  ky_loc_fw::log_debug(kTag, "DiscoveryScan: ResponseReceived Id = %d\n",
                       static_cast<int>(response->getRequestId()));
  ky_loc_fw::log_debug(kTag, "DiscoveryScan: scanStatus %d, %zu measurements\n",
                       discovery->scanStatus,
                       static_cast<size_t>(discovery->measurements.getCount()));

  static PoolSizing pools;
  CommonResponseData data;
  const uint32_t count = discovery->measurements.getCount();
  data.measurements.reserve(count);  // at most one record each
  pools.Reserve(data, count);
  ForEachMeasurement(discovery->measurements, [&data](const VELAScanMeasurement* m, int type) {
    if (type == kFullBeaconType) {
      MarshalFullBeacon(data, static_cast<const VELAFullBeaconScanMeasurement*>(m));
    } else {
      ky_loc_fw::log_warning(kTag, "DiscoveryScan: Unexpected measurement type %d\n", type);
    }
  });

  pools.Learn(data, count);

  DiscoveryResponseHeader header;
  header.response_value = discovery->scanTimestamp;
  header.response_word = discovery->scanSource;
  header.scanStatus = discovery->scanStatus;
  DeliverDiscovery(callback, header, &data);
}

// The request the parameters ask for, from the library's factory (a new
// object for the caller to own), or null for an unknown mode.
VELADiscoveryScanRequest* BuildRequest(uint32_t id, const DiscoveryScanParams& params,
                                       ky_loc_fw::vector<VELAChannelInfo>& channels) {
  const auto scan_type = static_cast<VELADiscoveryScanRequest::eScanType>(params.scan_type != 0);
  const bool channel_form = channels.getCount() != 0;
  auto band = VELADiscoveryScanRequest::BAND_ALL;
  if (!channel_form) {
    if (params.band == 0) {
      band = VELADiscoveryScanRequest::BAND_2_4_GHZ;
    } else if (params.band == 1) {
      band = VELADiscoveryScanRequest::BAND_5_GHZ;
    }
  }
  const long timeout = params.timeout;
  const bool cache_flag = params.cache_flag != 0;
  const bool scan_flag = params.scan_flag != 0;
  const int mode = static_cast<int>(params.mode);

  switch (params.mode) {
    case kDiscoveryModeFresh:
    case kDiscoveryModeFresh1: {
      const auto request_mode = static_cast<VELADiscoveryScanRequest::eRequestMode>(params.mode);
      if (channel_form) {
        ky_loc_fw::log_debug(kTag, "DiscoveryScan: createFreshScanRequest (channel) mode %d\n",
                             mode);
        return VELADiscoveryScanRequest::createFreshScanRequest(
            id, channels, scan_type, params.age_filter, timeout, request_mode, scan_flag);
      }
      // The 64-bit timeout goes to a %d as it always has: its low 32 bits show.
      ky_loc_fw::log_debug(kTag,
                           "DiscoveryScan: createFreshScanRequest (band %d) mode %d scan_type %d "
                           "age_filter %d timeout %d\n",
                           static_cast<int>(band), mode, static_cast<int>(scan_type),
                           static_cast<int>(params.age_filter), static_cast<int>(timeout));
      return VELADiscoveryScanRequest::createFreshScanRequest(
          id, band, scan_type, params.age_filter, timeout, request_mode, scan_flag);
    }
    case kDiscoveryModeCacheFallback:
      if (channel_form) {
        return VELADiscoveryScanRequest::createCacheFallbackRequest(
            id, channels, scan_type, params.age_filter, params.fallback_param, timeout, cache_flag,
            scan_flag);
      }
      return VELADiscoveryScanRequest::createCacheFallbackRequest(
          id, band, scan_type, params.age_filter, params.fallback_param, timeout, cache_flag,
          scan_flag);
    case kDiscoveryModeCacheOnly:
      if (channel_form) {
        return VELADiscoveryScanRequest::createCacheOnlyRequest(id, channels, params.age_filter,
                                                                timeout, cache_flag);
      }
      return VELADiscoveryScanRequest::createCacheOnlyRequest(id, band, params.age_filter, timeout,
                                                              cache_flag);
    default:
      return nullptr;
  }
}

}  // namespace

Object CreateVelaDiscoveryScan() {
  return Object{discovery_scan_invoke, nullptr};
}

int32_t discovery_scan_invoke(void* /*context*/, uint32_t op, ObjectArg* args, uint32_t counts) {
  // Retain and release get 2 like any other unknown op, unlike the root
  // object's 0; the asymmetry is intended and kept.
  if ((op & OBJECT_OP_MASK) != OBJECT_OP_METHOD) return OBJECT_ERROR_INVALID;
  if (counts != kDiscoveryScanCounts) return OBJECT_ERROR_INVALID;

  // The parameter buffer's size is deliberately not validated: a short
  // record is not refused. Bytes the client did not send read as zero rather
  // than as whatever follows the buffer in memory.
  DiscoveryScanParams params{};
  if (args[0].b.ptr != nullptr) {
    memcpy(&params, args[0].b.ptr,
           args[0].b.size < sizeof params ? static_cast<size_t>(args[0].b.size) : sizeof params);
  }

  // Destroyed in the reverse order: BSSIDs, SSIDs, channels.
  ky_loc_fw::vector<VELAChannelInfo> channels;
  ky_loc_fw::vector<VELASsid> ssids;
  ky_loc_fw::vector<VELAMacAddress> bssids;
  DecodeRecords<uint32_t>(args[1].b, channels,
                          [](uint32_t value) { return VELAChannelInfo(value); });
  DecodeRecords<WifiSsid>(args[2].b, ssids, [](const WifiSsid& record) {
    VELASsid ssid;
    ssid.setSSID(record.ssid, record.length < 32 ? record.length : 32);
    return ssid;
  });
  DecodeRecords<WifiMacAddress>(args[3].b, bssids, [](const WifiMacAddress& record) {
    VELAMacAddress bssid;
    bssid.setMac(static_cast<int>(record.hi24), static_cast<int>(record.lo24));
    return bssid;
  });

  // The id is drawn before the mode is checked: a refused request uses one up.
  std::unique_ptr<VELADiscoveryScanRequest> request(
      BuildRequest(NextRequestId(), params, channels));
  if (request != nullptr) {
    if (ssids.getCount() != 0) request->ssidFilter = ssids;
    if (bssids.getCount() != 0) request->bssidFilter = bssids;
  }
  const int32_t result = StartScan(request.get(), ResponseReceived, args[4].o, &args[5].o);
  request.reset();
  ky_loc_fw::log_debug(kTag, "DiscoveryScan: StartScan returning %d\n", result);
  return result;
}
