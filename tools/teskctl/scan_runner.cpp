#include "scan_runner.h"

#include <cstdio>

#include "result_waiter.h"

namespace {

struct CallbackState {
  std::mutex mutex;
  bool taken = false;
  bool well_formed = false;
};

int StartFailure(int32_t result) {
  switch (result) {
    case OBJECT_ERROR_NOT_STARTED:
      fprintf(stderr, "teskctl: the daemon did not start the scan (result 1)\n");
      return kExitNotStarted;
    case OBJECT_ERROR_INVALID:
      fprintf(stderr, "teskctl: the daemon refused the request as invalid (result 2)\n");
      return kExitInvalid;
    default:
      fprintf(stderr, "teskctl: lost the connection to the daemon (result %d)\n", result);
      return kExitUnreachable;
  }
}

}  // namespace

int RunScan(const GlobalOptions& options, uint32_t interface_id, const StartScanFn& start,
            TakeDeliveryFn take) {
  Object service = kNullObject;
  const int opened = OpenInterface(options, interface_id, &service);
  if (opened != kExitOk) return opened;

  ResultWaiter waiter;
  if (!waiter.ok()) {
    ObjectRelease(service);
    return kExitUnreachable;
  }
  // The daemon may deliver once only; the waiter is only notified while
  // this function runs, since the handle is released before it returns.
  auto state = std::make_shared<CallbackState>();
  ResultWaiter* notify = &waiter;
  Object callback = teskclient::MakeCallbackObject(
      [state, take = std::move(take), notify](const ObjectArg* args, uint32_t counts) {
        std::lock_guard<std::mutex> lock(state->mutex);
        if (state->taken) return;
        state->taken = true;
        state->well_formed = take(args, counts);
        if (notify != nullptr) notify->Notify();
      });

  Object handle = kNullObject;
  const int32_t started = start(service, callback, &handle);
  int status = kExitOk;
  if (started != OBJECT_OK) {
    status = StartFailure(started);
  } else {
    switch (waiter.Wait(options.timeout_ms)) {
      case ResultWaiter::Outcome::kDelivered:
        break;
      case ResultWaiter::Outcome::kTimedOut:
        fprintf(stderr, "teskctl: no results within %d ms; scan abandoned\n", options.timeout_ms);
        status = kExitTimeout;
        break;
      case ResultWaiter::Outcome::kInterrupted:
        fprintf(stderr, "teskctl: interrupted; scan abandoned\n");
        status = kExitInterrupted;
        break;
      case ResultWaiter::Outcome::kFailed:
        fprintf(stderr, "teskctl: waiting for results failed\n");
        status = kExitUnreachable;
        break;
    }
    // Releasing the handle before the results makes the daemon drop the scan.
    ObjectRelease(handle);
  }
  {
    // A delivery running now finishes before the waiter goes away.
    std::lock_guard<std::mutex> lock(state->mutex);
    if (status == kExitOk && !state->well_formed) {
      fprintf(stderr, "teskctl: the daemon delivered results of an unexpected shape\n");
      status = kExitBadResponse;
    }
    state->taken = true;
  }
  ObjectRelease(callback);
  ObjectRelease(service);
  return status;
}
