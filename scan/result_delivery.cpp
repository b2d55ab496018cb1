#include "scan/result_delivery.h"

#include <tesk/interfaces.h>

#include "scan/object_buffers.h"

namespace {

constexpr ObjectBuf kNoBuffer{nullptr, 0};

// Buffer 0 as given, then the common arrays and, for ranging, the MAC pool.
void Deliver(Object callback, ObjectBuf head, const CommonResponseData* data,
             const RangingData* ranging, uint32_t counts) {
  ObjectArg args[5];
  args[0].b = head;
  args[1].b = data != nullptr ? FlatBuffer(data->measurements) : kNoBuffer;
  args[2].b = data != nullptr ? FlatBuffer(data->infos) : kNoBuffer;
  args[3].b = data != nullptr ? FlatBuffer(data->bytes) : kNoBuffer;
  args[4].b = ranging != nullptr ? FlatBuffer(ranging->macs) : kNoBuffer;
  ObjectCall(callback, OBJECT_OP_METHOD, args, counts);
}

}  // namespace

void DeliverDiscovery(Object callback, const DiscoveryResponseHeader& header,
                      const CommonResponseData* data) {
  // The IPC layer only reads input buffers.
  ObjectBuf head{const_cast<DiscoveryResponseHeader*>(&header), sizeof header};
  Deliver(callback, head, data, nullptr, kDiscoveryDeliveryCounts);
}

void DeliverRanging(Object callback, uint32_t status, const RangingData* data) {
  Deliver(callback, ObjectBuf{&status, sizeof status}, data, data, kRangingDeliveryCounts);
}
