// What a client says to the daemon and hears back, apart from the records
// themselves: the interface ids of the root object, the ops of each object
// and the counts word of every method and delivery.
#ifndef TESK_INTERFACES_H_
#define TESK_INTERFACES_H_

#include <cstdint>

#include <tesk/object.h>

// Root object: op 0, one 4-byte interface id in, the interface's object out.
constexpr uint32_t kRootCounts = OBJECT_COUNTS(1, 0, 0, 1);
constexpr uint32_t kInterfaceDiscoveryScan = 1;
constexpr uint32_t kInterfaceRangingScan = 2;
constexpr uint32_t kInterfaceDeauthMonitor = 30;

// Discovery scan: parameters, channels, SSIDs, BSSIDs and the callback in;
// the request handle out. Results: a header and three record arrays.
constexpr uint32_t kDiscoveryScanCounts = OBJECT_COUNTS(4, 0, 1, 1);
constexpr uint32_t kDiscoveryDeliveryCounts = OBJECT_COUNTS(4, 0, 0, 0);

// Values of DiscoveryScanParams::mode.
constexpr uint32_t kDiscoveryModeFresh = 0;
constexpr uint32_t kDiscoveryModeFresh1 = 1;
constexpr uint32_t kDiscoveryModeCacheOnly = 2;
constexpr uint32_t kDiscoveryModeCacheFallback = 3;

// Ranging scan: op 0 single, op 1 periodic; targets, time value and the
// callback in, the request handle out. Results: a status and four arrays.
constexpr uint32_t kRangingOpSingle = OBJECT_OP_METHOD;
constexpr uint32_t kRangingOpPeriodic = OBJECT_OP_METHOD2;
constexpr uint32_t kRangingScanCounts = OBJECT_COUNTS(2, 0, 1, 1);
constexpr uint32_t kRangingDeliveryCounts = OBJECT_COUNTS(5, 0, 0, 0);

// scanStatus sent when the daemon could not use the location service's answer.
constexpr int32_t kScanStatusBadResponse = 5;

// Deauth monitor: the callback in, a token out; each event arrives as one
// DeauthEvent buffer.
constexpr uint32_t kDeauthRegisterCounts = OBJECT_COUNTS(0, 0, 1, 1);
constexpr uint32_t kDeauthEventCounts = OBJECT_COUNTS(1, 0, 0, 0);

#endif  // TESK_INTERFACES_H_
