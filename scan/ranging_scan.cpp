#include "scan/ranging_scan.h"

#include <cstddef>
#include <cstring>

#include <tesk/interfaces.h>
#include <tesk/scan_records.h>
#include <tesk/scan_requests.h>

#include "dispatch/vela_dispatcher.h"
#include "ky_loc_fw/log.h"
#include "ky_loc_fw/vela_node_info.h"
#include "ky_loc_fw/vela_request.h"
#include "ky_loc_fw/vela_response.h"
#include "scan/marshal.h"
#include "scan/object_buffers.h"
#include "scan/response_data.h"
#include "scan/vector.h"

using ky_loc_fw::VELANodeInfo;
using ky_loc_fw::VELAPeriodicNodeInfo;
using ky_loc_fw::VELARangingScanResponse;
using ky_loc_fw::VELAResponse;
using ky_loc_fw::VELAScanMeasurement;

namespace {

constexpr const char* kTag = "tesk";
constexpr int kRangingResponseType = VELAResponse::RESPONSE_TYPE_RANGING_SCAN;

void Deliver(Object callback, uint32_t* status, const RangingData* data) {
  ObjectArg args[5];
  args[0].b = ObjectBuf{status, sizeof *status};
  if (data != nullptr) {
    args[1].b = FlatBuffer(data->measurements);
    args[2].b = FlatBuffer(data->infos);
    args[3].b = FlatBuffer(data->bytes);
    args[4].b = FlatBuffer(data->macs);
  } else {
    args[1].b = args[2].b = args[3].b = args[4].b = ObjectBuf{nullptr, 0};
  }
  ObjectCall(callback, OBJECT_OP_METHOD, args, kRangingDeliveryCounts);
}

// The ranging response function: marshals plain and ranging measurements
// and makes one delivery to the client's callback.
void ResponseReceived(VELAResponse* response, Object callback) {
  if (response == nullptr || response->getResponseType() != kRangingResponseType) {
    ky_loc_fw::log_warning(kTag, "RangingScan: Bad response received\n");
    uint32_t status = kScanStatusBadResponse;
    Deliver(callback, &status, nullptr);
    return;
  }
  auto* ranging = static_cast<VELARangingScanResponse*>(response);
  const uint32_t count = ranging->measurements.getCount();
  ky_loc_fw::log_debug(kTag, "RangingScan: ResponseReceived Request Id = %d, %d measurements\n",
                       static_cast<int>(response->getRequestId()), static_cast<int>(count));

  RangingData data;
  VELAScanMeasurement* const* measurements = ranging->measurements.getData();
  for (uint32_t i = 0; i < count; ++i) {
    const VELAScanMeasurement* m = measurements[i];
    // The library allows null entries; there is nothing to ask them.
    if (m == nullptr) continue;
    const int type = m->getMeasurementType();
    if (type == VELAScanMeasurement::MEASUREMENT_TYPE_SCAN) {
      MarshalCommon(data, m);
    } else if (type == VELAScanMeasurement::MEASUREMENT_TYPE_RANGING) {
      MarshalRanging(data, static_cast<const ky_loc_fw::VELARangingScanMeasurement*>(m));
    } else {
      // Full beacons too: they belong to discovery results only.
      ky_loc_fw::log_warning(kTag, "RangingScan: Unexpected measurement type %d\n", type);
    }
  }

  uint32_t status = static_cast<uint32_t>(ranging->scanStatus);
  Deliver(callback, &status, &data);
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

int32_t Fold(int32_t sent) {
  return sent == 0 ? OBJECT_OK : OBJECT_ERROR_NOT_STARTED;
}

int32_t StartRangingScan(ObjectArg* args, long ts) {
  ky_loc_fw::vector<VELANodeInfo> nodes;
  for (uint64_t i = 0; i < args[0].b.size / sizeof(RangingTarget); ++i) {
    VELANodeInfo node;
    FillNode(ReadRecord<RangingTarget>(args[0].b, i), &node);
    nodes.push_back(node);
  }
  VelaDispatcher& dispatcher = VelaDispatcher::Get();
  const uint32_t id = ++dispatcher.next_request_id;
  auto* request = new ky_loc_fw::VELARangingScanRequest(id, nodes, ts);
  const int32_t result =
      Fold(dispatcher.SendRequest(request, ResponseReceived, args[2].o, &args[3].o));
  ky_loc_fw::log_debug(kTag, "RangingScan: StartRangingScan ID %d ts %ld returning %d\n",
                       static_cast<int>(request->getRequestId()), ts, result);
  delete request;
  return result;
}

int32_t StartPeriodicRangingScan(ObjectArg* args, long ts) {
  ky_loc_fw::vector<VELAPeriodicNodeInfo> nodes;
  for (uint64_t i = 0; i < args[0].b.size / sizeof(PeriodicRangingTarget); ++i) {
    const PeriodicRangingTarget record = ReadRecord<PeriodicRangingTarget>(args[0].b, i);
    VELAPeriodicNodeInfo node;
    FillNode(record.node, &node);
    node.periodicByte = record.periodicByte;
    node.periodicValue1 = record.periodicValue1;
    node.periodicValue2 = record.periodicValue2;
    nodes.push_back(node);
  }
  VelaDispatcher& dispatcher = VelaDispatcher::Get();
  const uint32_t id = ++dispatcher.next_request_id;
  auto* request = new ky_loc_fw::VELAPeriodicRangingScanRequest(id, nodes, ts);
  const int32_t result =
      Fold(dispatcher.SendRequest(request, ResponseReceived, args[2].o, &args[3].o));
  delete request;
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
