// The serving half of the public API.
#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <mutex>
#include <new>
#include <vector>

#include "endpoint.h"
#include "log.h"
#include "peer_limits.h"
#include "tarnsocket/tarn_ipc.h"
#include "wait_budget.h"

namespace tarnsocket {
namespace {

// Service handles stay valid for the life of the process, so that a late
// TarnIPC_stopService or a second TarnIPC_join on an ended service is safe.
std::mutex g_services_mutex;
// NOLINTNEXTLINE(cppcoreguidelines-owning-memory): never destroyed
std::vector<Endpoint*>* g_services = new std::vector<Endpoint*>();

// Served calls allocate on many threads. The allocator gives threads that
// contend heaps of their own, and the free space at the top of those heaps
// stays resident whatever malloc_trim is asked (it trims only the main
// heap's top): a large call could leave tens of megabytes behind for good.
// With one heap, the idle trim gives back everything that is free. Set
// before the workers first allocate, while few heaps exist.
void KeepOneHeap() {
#ifdef __GLIBC__
  // mallopt takes the allocator's own lock; the static runs it once.
  static const bool once = mallopt(M_ARENA_MAX, 1) != 0;  // NOLINT(concurrency-mt-unsafe)
  (void)once;
#endif
}

bool CanServe(int fd) {
  struct stat st {};
  if (fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode)) {
    LogError("Cannot serve on fd %d: not a socket", fd);
    return false;
  }
  int type = 0;
  socklen_t len = sizeof type;
  if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len) != 0 || type != SOCK_STREAM) {
    LogError("Cannot serve on fd %d: not a stream socket", fd);
    return false;
  }
  if (listen(fd, SOMAXCONN) != 0) {
    LogError("Cannot serve on fd %d: listen failed: %d (%s)", fd, errno,
             strerror(errno));  // NOLINT(concurrency-mt-unsafe)
    return false;
  }
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
    LogError("Cannot serve on fd %d: fcntl failed: %d (%s)", fd, errno,
             strerror(errno));  // NOLINT(concurrency-mt-unsafe)
    return false;
  }
  return true;
}

}  // namespace
}  // namespace tarnsocket

using tarnsocket::Endpoint;

extern "C" {

__attribute__((visibility("default"))) void* TarnIPC_startServiceOnSocket(int fd,
                                                                          ObjectInvoke invoke,
                                                                          void* context) {
  if (invoke == nullptr || !tarnsocket::CanServe(fd)) return nullptr;
  tarnsocket::KeepOneHeap();
  const tarnsocket::Limits limits = tarnsocket::ReadLimits();
  tarnsocket::WaitBudget::Instance().Configure(limits.wait_budget_ms, limits.wait_refill_ms);
  // Owned by g_services once started, for the life of the process.
  // NOLINTNEXTLINE(cppcoreguidelines-owning-memory)
  Endpoint* endpoint = new (std::nothrow) Endpoint(fd, Object{invoke, context});
  if (endpoint == nullptr) return nullptr;
  const int rc = endpoint->Start();
  if (rc != 0) {
    tarnsocket::LogError("Cannot start service: %d (%s)", -rc,
                         strerror(-rc));  // NOLINT(concurrency-mt-unsafe)
    delete endpoint;                      // NOLINT(cppcoreguidelines-owning-memory)
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(tarnsocket::g_services_mutex);
  tarnsocket::g_services->push_back(endpoint);
  return endpoint;
}

__attribute__((visibility("default"))) void TarnIPC_join(void* service) {
  if (service != nullptr) static_cast<Endpoint*>(service)->Join();
}

__attribute__((visibility("default"))) void TarnIPC_stopService(void* service) {
  if (service != nullptr) static_cast<Endpoint*>(service)->Stop();
}

}  // extern "C"
