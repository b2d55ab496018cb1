#include "scan/ranging_scan.h"

#include <cstddef>
#include <cstring>
#include <memory>

#include <tesk/interfaces.h>
#include <tesk/scan_records.h>
#include <tesk/scan_requests.h>

#include "ky_loc_fw/log.h"
#include "ky_loc_fw/vela_node_info.h"
#include "ky_loc_fw/vela_request.h"
#include "ky_loc_fw/vela_response.h"
#include "scan/marshal.h"
#include "scan/object_buffers.h"
#include "scan/pool_sizing.h"
#include "scan/response_data.h"
#include "scan/result_delivery.h"
#include "scan/scan_start.h"
#include "scan/vector.h"

using ky_loc_fw::VELANodeInfo;
using ky_loc_fw::VELAPeriodicNodeInfo;
using ky_loc_fw::VELAPeriodicRangingScanRequest;
using ky_loc_fw::VELARangingScanMeasurement;
using ky_loc_fw::VELARangingScanRequest;
using ky_loc_fw::VELARangingScanResponse;
using ky_loc_fw::VELAResponse;
using ky_loc_fw::VELAScanMeasurement;

namespace {

constexpr const char* kTag = "tesk";
constexpr int kRangingResponseType = VELAResponse::RESPONSE_TYPE_RANGING_SCAN;

// The ranging response function: marshals plain and ranging measurements
// and makes one delivery to the client's callback.
void ResponseReceived(VELAResponse* response, Object callback) {
  if (response == nullptr || response->getResponseType() != kRangingResponseType) {
    ky_loc_fw::log_warning(kTag, "RangingScan: Bad response received\n");
    DeliverRanging(callback, kScanStatusBadResponse, nullptr);
    return;
  }
  auto* ranging = static_cast<VELARangingScanResponse*>(response);
  ky_loc_fw::log_debug(kTag, "RangingScan: ResponseReceived Request Id = %d, %d measurements\n",
                       static_cast<int>(response->getRequestId()),
                       static_cast<int>(ranging->measurements.getCount()));

  static PoolSizing pools;
  RangingData data;
  const uint32_t count = ranging->measurements.getCount();
  data.measurements.reserve(count);  // at most one record each
  pools.Reserve(data, count);
  // Full beacons are unexpected here too: they belong to discovery results.
  ForEachMeasurement(ranging->measurements, [&data](const VELAScanMeasurement* m, int type) {
    if (type == VELAScanMeasurement::MEASUREMENT_TYPE_SCAN) {
      MarshalCommon(data, m);
    } else if (type == VELAScanMeasurement::MEASUREMENT_TYPE_RANGING) {
      MarshalRanging(data, static_cast<const VELARangingScanMeasurement*>(m));
    } else {
      ky_loc_fw::log_warning(kTag, "RangingScan: Unexpected measurement type %d\n", type);
    }
  });
  pools.Learn(data, count);
  DeliverRanging(callback, static_cast<uint32_t>(ranging->scanStatus), &data);
}

// Out-of-range values are not refused but replaced; the fallbacks differ on
// purpose (1 for nodeEnum2, 0 for the others).
uint32_t InRange(uint32_t value, uint32_t low, uint32_t high, uint32_t fallback) {
  return value >= low && value <= high ? value : fallback;
}

void FillNode(const RangingTarget& record, VELANodeInfo* node) {
  node->mac.setMac(static_cast<int>(record.macHi24), static_cast<int>(record.macLo24));
  node->nodeValue1 = record.nodeValue1;
  node->nodeValue2 = record.nodeValue2;
  node->nodeValue3 = record.nodeValue3;
  node->nodeEnum1 = static_cast<VELANodeInfo::eBandwidth>(InRange(record.nodeEnum1, 1, 5, 0));
  node->peerMac.setMac(static_cast<int>(record.peerHi24), static_cast<int>(record.peerLo24));
  node->nodeEnum2 = static_cast<VELANodeInfo::ePreamble>(InRange(record.nodeEnum2, 0, 3, 1));
  node->nodeEnum3 = static_cast<VELANodeInfo::ePeerType>(InRange(record.nodeEnum3, 1, 4, 0));
  node->nodeEnum4 = static_cast<VELANodeInfo::eRangingMethod>(InRange(record.nodeEnum4, 1, 3, 0));
  node->nodeByte1 = record.nodeByte1;
  node->nodeByte2 = record.nodeByte2;
  node->nodeValue4 = record.nodeValue4;
}

VELANodeInfo SingleNode(const RangingTarget& record) {
  VELANodeInfo node;
  FillNode(record, &node);
  return node;
}

VELAPeriodicNodeInfo PeriodicNode(const PeriodicRangingTarget& record) {
  VELAPeriodicNodeInfo node;
  FillNode(record.node, &node);
  node.periodicByte = record.periodicByte;
  node.periodicValue1 = record.periodicValue1;
  node.periodicValue2 = record.periodicValue2;
  return node;
}

// Decodes the targets into nodes, builds the request around them and starts
// it; the request is handed back so that each op ends it in its own order.
template <typename Request, typename Node, typename Record>
std::unique_ptr<Request> SendRanging(ObjectArg* args, long ts, Node (*make_node)(const Record&),
                                     int32_t* result) {
  ky_loc_fw::vector<Node> nodes;
  DecodeRecords<Record>(args[0].b, nodes, make_node);
  auto request = std::make_unique<Request>(NextRequestId(), nodes, ts);
  *result = StartScan(request.get(), ResponseReceived, args[2].o, &args[3].o);
  return request;
}

// The single scan logs while its request still exists, the periodic one
// after deleting it; both orders are kept as they are.
int32_t StartRangingScan(ObjectArg* args, long ts) {
  int32_t result;
  auto request = SendRanging<VELARangingScanRequest>(args, ts, SingleNode, &result);
  ky_loc_fw::log_debug(kTag, "RangingScan: StartRangingScan ID %d ts %ld returning %d\n",
                       static_cast<int>(request->getRequestId()), ts, result);
  return result;
}

int32_t StartPeriodicRangingScan(ObjectArg* args, long ts) {
  int32_t result;
  SendRanging<VELAPeriodicRangingScanRequest>(args, ts, PeriodicNode, &result).reset();
  ky_loc_fw::log_debug(kTag, "RangingScan: StartPeriodicRangingScan returning %d\n", result);
  return result;
}

}  // namespace

Object CreateVelaRangingScan() {
  return Object{ranging_scan_invoke, nullptr};
}

int32_t ranging_scan_invoke(void* /*context*/, uint32_t op, ObjectArg* args, uint32_t counts) {
  // Retain and release are not honoured: 2, like any unknown op.
  const uint32_t method = op & OBJECT_OP_MASK;
  if (method != kRangingOpSingle && method != kRangingOpPeriodic) return OBJECT_ERROR_INVALID;
  if (counts != kRangingScanCounts || args[1].b.size != sizeof(RangingTimeValue)) {
    return OBJECT_ERROR_INVALID;
  }
  RangingTimeValue ts;
  memcpy(&ts, args[1].b.ptr, sizeof ts);
  return method == kRangingOpSingle ? StartRangingScan(args, ts)
                                    : StartPeriodicRangingScan(args, ts);
}
