// The life of one scan seen from the command line: open the interface,
// start the scan with a callback object, wait on the main thread for the
// delivery, a signal or the timeout, and let go of every reference.
#ifndef TESK_TOOLS_TESKCTL_SCAN_RUNNER_H_
#define TESK_TOOLS_TESKCTL_SCAN_RUNNER_H_

#include <functional>
#include <memory>
#include <mutex>

#include <tesk/object.h>

#include "command.h"
#include "teskclient/callback_object.h"

// Starts the scan on `service`: the daemon's answer, with *handle set on 0.
using StartScanFn = std::function<int32_t(Object service, Object callback, Object* handle)>;

// Copies a delivery (valid only during the call) into a shared slot; false
// when the delivery did not have the expected shape.
using TakeDeliveryFn = std::function<bool(const ObjectArg* args, uint32_t counts)>;

// kExitOk once a well-formed delivery was taken; otherwise the exit status,
// with the reason already printed.
int RunScan(const GlobalOptions& options, uint32_t interface_id, const StartScanFn& start,
            TakeDeliveryFn take);

// Decodes a delivery of type Results into a slot that outlives the command,
// since a late delivery may still be running when the command ends.
template <typename Results>
struct DeliverySlot {
  using DecodeFn = bool (*)(const ObjectArg*, uint32_t, Results*);

  static TakeDeliveryFn Taker(const std::shared_ptr<DeliverySlot>& slot, DecodeFn decode) {
    return [slot, decode](const ObjectArg* args, uint32_t counts) {
      std::lock_guard<std::mutex> lock(slot->mutex);
      return decode(args, counts, &slot->results);
    };
  }

  std::mutex mutex;
  Results results;
};

#endif  // TESK_TOOLS_TESKCTL_SCAN_RUNNER_H_
