// tesk: started by init with the control socket "tesk"; serves the root
// object there through the IPC library, which is loaded at run time.
#include <dlfcn.h>
#include <unistd.h>

#include "cutils/sockets.h"
#include "deauth/deauth_monitor.h"
#include "ky_loc_fw/log.h"
#include "scan/scan_heap.h"
#include "service/root_object.h"
#include "tarnsocket/tarn_ipc_service.h"

namespace {

constexpr const char* kTag = "tesk";

using StartServiceFn = TarnIPC_startServiceOnSocket_t;
using JoinFn = TarnIPC_join_t;

// A start-up failure must not end the process: init would restart it and
// fail again in a loop. The daemon stays, idle, until the device reboots.
[[noreturn]] void SleepForever() {
  for (;;) sleep(86400);  // NOLINT(concurrency-mt-unsafe): no thread uses SIGALRM
}

}  // namespace

int main() {
  ky_loc_fw::log_set_local_level_for_tag(kTag, 1);
  KeepScanMemoryForTheNextScan();

  // Scans are offered whether or not disconnect events can be detected.
  DeauthMonitor::Get().Initialize();

  void* library = dlopen("libtarnsocket.so", RTLD_NOW);
  if (library == nullptr) {
    ky_loc_fw::log_error(kTag, "Failed to load libtarnsocket");
    SleepForever();
  }

  auto start_service =
      reinterpret_cast<StartServiceFn>(dlsym(library, "TarnIPC_startServiceOnSocket"));
  auto join = reinterpret_cast<JoinFn>(dlsym(library, "TarnIPC_join"));
  if (start_service == nullptr || join == nullptr) {
    ky_loc_fw::log_error(kTag, "Shared library symbol not found");
    dlclose(library);
    SleepForever();
  }

  const int fd = android_get_control_socket("tesk");
  if (fd < 0) {
    ky_loc_fw::log_error(kTag, "No service socket provided");
    dlclose(library);
    SleepForever();
  }

  void* service = start_service(fd, root_invoke, nullptr);
  if (service == nullptr) {
    ky_loc_fw::log_error(kTag, "Failed to create service");
    dlclose(library);
    SleepForever();
  }

  ky_loc_fw::log_info(kTag, "Serving TESK interface");
  join(service);
  dlclose(library);
  return 0;
}
