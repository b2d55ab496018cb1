// teskctl watch: registers with the daemon's deauth monitor and prints each
// disconnect event as it arrives, until SIGINT or SIGTERM.
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "command.h"
#include "json_writer.h"
#include "result_waiter.h"
#include "teskclient/callback_object.h"
#include "teskclient/result_decoding.h"
#include "teskclient/session.h"

namespace {

constexpr int kWaitStepMs = 3600 * 1000;  // watching has no deadline

void PrintWatchUsage(FILE* out) {
  fprintf(out,
          "usage: teskctl [GLOBAL OPTIONS] watch\n"
          "Prints the daemon's Wi-Fi disconnect events as they arrive, one line each\n"
          "(one JSON object per line with --json), until interrupted (exit status 0).\n"
          "\n"
          "  -h, --help   this text\n");
}

// Shared by the printing callback, which runs on the IPC library's threads
// and may outlive this command, and the command itself.
struct WatchState {
  std::mutex mutex;
  bool json = false;
  ResultWaiter* waiter = nullptr;  // null once the command is ending
};

// Destroyed with the callback, that is when the daemon dropped its last
// reference: while the command runs, that means the watch is over.
struct DropNotice {
  explicit DropNotice(std::shared_ptr<WatchState> s) : state(std::move(s)) {}
  DropNotice(const DropNotice&) = delete;
  DropNotice& operator=(const DropNotice&) = delete;
  ~DropNotice() {
    std::lock_guard<std::mutex> lock(state->mutex);
    if (state->waiter != nullptr) state->waiter->Notify();
  }

  std::shared_ptr<WatchState> state;
};

void PrintEvent(const DeauthEvent& event, bool json) {
  if (json) {
    JsonWriter writer;
    writer.BeginObject();
    writer.IntField("wiphy", event.wiphy);
    writer.IntField("ifindex", event.ifindex);
    writer.IntField("reason", event.reason);
    writer.BoolField("by_ap", event.by_ap != 0);
    writer.EndObject();
    printf("%s\n", writer.text().c_str());
  } else {
    printf("disconnect: wiphy %d, ifindex %d, reason %d, %s\n", event.wiphy, event.ifindex,
           event.reason, event.by_ap != 0 ? "by access point" : "local");
  }
  fflush(stdout);
}

void OnDelivery(WatchState& state, const ObjectArg* args, uint32_t counts) {
  std::lock_guard<std::mutex> lock(state.mutex);
  if (state.waiter == nullptr) return;
  DeauthEvent event;
  if (!teskclient::DecodeDeauthEvent(args, counts, &event)) {
    fprintf(stderr, "teskctl: ignored a delivery of unexpected shape (counts 0x%x)\n", counts);
    return;
  }
  PrintEvent(event, state.json);
}

int RegisterFailure(int32_t result) {
  if (result == OBJECT_ERROR_INVALID) {
    fprintf(stderr, "teskctl: the daemon refused the registration as invalid (result 2)\n");
    return kExitInvalid;
  }
  fprintf(stderr, "teskctl: lost the connection to the daemon (result %d)\n", result);
  return kExitUnreachable;
}

}  // namespace

int RunWatchCommand(const GlobalOptions& options, int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
      PrintWatchUsage(stdout);
      return kExitOk;
    }
    fprintf(stderr, "teskctl watch: unknown argument %s\nTry 'teskctl watch --help'.\n", argv[i]);
    return kExitUsage;
  }

  Object service = kNullObject;
  const int opened = OpenInterface(options, kInterfaceDeauthMonitor, &service);
  if (opened != kExitOk) return opened;

  // From here a SIGINT or SIGTERM, even one sent earlier, ends the watch.
  ResultWaiter waiter;
  if (!waiter.ok()) {
    ObjectRelease(service);
    return kExitUnreachable;
  }
  auto state = std::make_shared<WatchState>();
  state->json = options.json;
  state->waiter = &waiter;
  auto notice = std::make_shared<DropNotice>(state);
  Object callback =
      teskclient::MakeCallbackObject([state, notice](const ObjectArg* args, uint32_t counts) {
        OnDelivery(*state, args, counts);
      });
  notice.reset();

  Object token = kNullObject;
  const int32_t registered = teskclient::WatchDisconnects(service, callback, &token);
  // From here the daemon holds the callback; without our own reference, the
  // callback's end tells us that the daemon let go of it.
  ObjectRelease(callback);
  if (registered != OBJECT_OK) {
    {
      std::lock_guard<std::mutex> lock(state->mutex);
      state->waiter = nullptr;
    }
    ObjectRelease(service);
    return RegisterFailure(registered);
  }
  fprintf(stderr, "teskctl: watching disconnect events; interrupt to stop\n");

  int status = kExitOk;
  for (bool watching = true; watching;) {
    switch (waiter.Wait(kWaitStepMs)) {
      case ResultWaiter::Outcome::kTimedOut:
        break;
      case ResultWaiter::Outcome::kInterrupted:
        watching = false;
        break;
      case ResultWaiter::Outcome::kDelivered:
        fprintf(stderr, "teskctl: the daemon ended the watch\n");
        status = kExitUnreachable;
        watching = false;
        break;
      case ResultWaiter::Outcome::kFailed:
        fprintf(stderr, "teskctl: waiting for events failed\n");
        status = kExitUnreachable;
        watching = false;
        break;
    }
  }
  {
    // A delivery running now finishes first; none prints after this.
    std::lock_guard<std::mutex> lock(state->mutex);
    state->waiter = nullptr;
  }
  ObjectRelease(token);
  ObjectRelease(service);
  return status;
}
