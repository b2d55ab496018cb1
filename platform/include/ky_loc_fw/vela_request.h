// Requests to the location service. A request is built by a factory or a
// constructor, handed to VELAClient::sendRequest and then belongs to the
// caller again: the client copies what it needs before sendRequest returns,
// so the caller may delete the request at once.
//
// Units and meanings used by the service:
//   timeout      milliseconds the service may take before it answers with
//                SCAN_STATUS_TIMEOUT; 0 or less means no limit
//   ageFilter    largest age, in milliseconds, of a cached result that may be
//                reported; 0 means any age
//   fallbackParam  cache-fallback requests: the number of matching cached
//                results that is enough to answer from the cache; fewer
//                (or none at all) make the service scan afresh
//   scanFlag     report access points that hide their SSID among fresh
//                results
//   cacheFlag    the same for results taken from the cache
// A cache holds every access point seen by a fresh scan (and in a simulation,
// those the scenario marks as cached).
#ifndef KY_LOC_FW_VELA_REQUEST_H_
#define KY_LOC_FW_VELA_REQUEST_H_

#include "ky_loc_fw/vela_channel_info.h"
#include "ky_loc_fw/vela_mac_address.h"
#include "ky_loc_fw/vela_node_info.h"
#include "ky_loc_fw/vela_ssid.h"
#include "scan/vector.h"

namespace ky_loc_fw {

class VELARequest {
 public:
  enum eRequestType {
    REQUEST_TYPE_DISCOVERY_SCAN = 1,
    REQUEST_TYPE_RANGING_SCAN = 2,
    REQUEST_TYPE_PERIODIC_RANGING_SCAN = 3,
  };

  VELARequest(const VELARequest&) = delete;
  VELARequest& operator=(const VELARequest&) = delete;
  virtual ~VELARequest();

  unsigned int getRequestId() const { return requestId; }
  // One of eRequestType.
  virtual int getRequestType() const = 0;

 protected:
  explicit VELARequest(unsigned int id);

 private:
  unsigned int requestId;
};

class VELADiscoveryScanRequest : public VELARequest {
 public:
  // The enumerations have a fixed type so that the factories can check any
  // value they are given.
  enum eScanType : int {
    SCAN_TYPE_ACTIVE = 0,   // probe requests on every channel allowed to
    SCAN_TYPE_PASSIVE = 1,  // listen for beacons only
  };
  enum eBand : int {
    BAND_2_4_GHZ = 0,
    BAND_5_GHZ = 1,
    BAND_ALL = 2,
  };
  enum eRequestMode : int {
    REQUEST_MODE_NORMAL = 0,
    REQUEST_MODE_HIGH_ACCURACY = 1,  // dwells longer on each channel
  };
  // Which factory made the request.
  enum eRequestKind : int {
    KIND_FRESH_SCAN = 0,
    KIND_CACHE_ONLY = 1,
    KIND_CACHE_FALLBACK = 2,
  };

  // Every factory returns a new request owned by the caller, or null when an
  // enumeration value is out of range, the channel list is empty, or memory
  // runs out.
  static VELADiscoveryScanRequest* createFreshScanRequest(unsigned int id, eBand band,
                                                          eScanType scanType,
                                                          unsigned int ageFilter, long timeout,
                                                          eRequestMode requestMode, bool scanFlag);
  static VELADiscoveryScanRequest* createFreshScanRequest(
      unsigned int id, ky_loc_fw::vector<VELAChannelInfo>& channels, eScanType scanType,
      unsigned int ageFilter, long timeout, eRequestMode requestMode, bool scanFlag);
  static VELADiscoveryScanRequest* createCacheOnlyRequest(unsigned int id, eBand band,
                                                          unsigned int ageFilter, long timeout,
                                                          bool cacheFlag);
  static VELADiscoveryScanRequest* createCacheOnlyRequest(
      unsigned int id, ky_loc_fw::vector<VELAChannelInfo>& channels, unsigned int ageFilter,
      long timeout, bool cacheFlag);
  static VELADiscoveryScanRequest* createCacheFallbackRequest(
      unsigned int id, eBand band, eScanType scanType, unsigned int ageFilter,
      unsigned int fallbackParam, long timeout, bool cacheFlag, bool scanFlag);
  static VELADiscoveryScanRequest* createCacheFallbackRequest(
      unsigned int id, ky_loc_fw::vector<VELAChannelInfo>& channels, eScanType scanType,
      unsigned int ageFilter, unsigned int fallbackParam, long timeout, bool cacheFlag,
      bool scanFlag);

  ~VELADiscoveryScanRequest() override;
  int getRequestType() const override;  // REQUEST_TYPE_DISCOVERY_SCAN

  // Filters: when not empty, only access points whose SSID (bssidFilter: MAC
  // address) equals one of the entries are reported. The factories leave
  // both empty; assign into them.
  ky_loc_fw::vector<VELASsid> ssidFilter;
  ky_loc_fw::vector<VELAMacAddress> bssidFilter;

  eRequestKind getKind() const { return kind; }
  // True for the channel forms of the factories; getBand() is then BAND_ALL
  // and meaningless.
  bool hasChannels() const { return channels.getCount() != 0; }
  const ky_loc_fw::vector<VELAChannelInfo>& getChannels() const { return channels; }
  eBand getBand() const { return band; }
  // Cache-only requests carry SCAN_TYPE_ACTIVE.
  eScanType getScanType() const { return scanType; }
  unsigned int getAgeFilter() const { return ageFilter; }
  // Cache-fallback requests only; 0 otherwise.
  unsigned int getFallbackParam() const { return fallbackParam; }
  long getTimeout() const { return timeout; }
  // Fresh scans only; REQUEST_MODE_NORMAL otherwise.
  eRequestMode getRequestMode() const { return requestMode; }
  // Cache-only and cache-fallback requests; false otherwise.
  bool getCacheFlag() const { return cacheFlag; }
  // Fresh-scan and cache-fallback requests; false otherwise.
  bool getScanFlag() const { return scanFlag; }

 private:
  VELADiscoveryScanRequest(unsigned int id, eRequestKind requestKind);
  // What the six factories pass on besides the form; each sets its own part.
  struct Settings {
    unsigned int ageFilter;
    unsigned int fallbackParam;
    long timeout;
    eRequestMode requestMode;
    bool cacheFlag;
    bool scanFlag;
  };
  static VELADiscoveryScanRequest* Create(unsigned int id, eRequestKind requestKind,
                                          const ky_loc_fw::vector<VELAChannelInfo>* channelList,
                                          eBand scanBand, eScanType type, const Settings& settings);

  eRequestKind kind;
  ky_loc_fw::vector<VELAChannelInfo> channels;
  eBand band = BAND_ALL;
  eScanType scanType = SCAN_TYPE_ACTIVE;
  unsigned int ageFilter = 0;
  unsigned int fallbackParam = 0;
  long timeout = 0;
  eRequestMode requestMode = REQUEST_MODE_NORMAL;
  bool cacheFlag = false;
  bool scanFlag = false;
};

// One ranging round with each target. ts is the caller's time stamp of the
// request (milliseconds); the service echoes nothing of it but keeps it.
class VELARangingScanRequest : public VELARequest {
 public:
  VELARangingScanRequest(unsigned int id, ky_loc_fw::vector<VELANodeInfo>& nodes, long ts);
  ~VELARangingScanRequest() override;
  int getRequestType() const override;  // REQUEST_TYPE_RANGING_SCAN

  const ky_loc_fw::vector<VELANodeInfo>& getNodes() const { return nodes; }
  long getTimestamp() const { return timestamp; }

 private:
  ky_loc_fw::vector<VELANodeInfo> nodes;
  long timestamp;
};

// Ranging repeated with the period each target asks for.
class VELAPeriodicRangingScanRequest : public VELARequest {
 public:
  VELAPeriodicRangingScanRequest(unsigned int id, ky_loc_fw::vector<VELAPeriodicNodeInfo>& nodes,
                                 long ts);
  ~VELAPeriodicRangingScanRequest() override;
  int getRequestType() const override;  // REQUEST_TYPE_PERIODIC_RANGING_SCAN

  const ky_loc_fw::vector<VELAPeriodicNodeInfo>& getNodes() const { return nodes; }
  long getTimestamp() const { return timestamp; }

 private:
  ky_loc_fw::vector<VELAPeriodicNodeInfo> nodes;
  long timestamp;
};

}  // namespace ky_loc_fw

#endif  // KY_LOC_FW_VELA_REQUEST_H_
