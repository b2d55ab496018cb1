// A connection's life: construction, the root export and import, and the
// end, which releases everything the peer held.
#include "connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <utility>

#include "call_timeout.h"
#include "endpoint.h"
#include "log.h"
#include "thread_context.h"

namespace tarnsocket {
namespace {

constexpr size_t kReadAhead = size_t{16} * 1024;

}  // namespace

Connection::Connection(int fd, Side side, Endpoint* endpoint, uint64_t id)
    : fd_(fd), side_(side), endpoint_(endpoint), id_(id), timeout_ms_(CallTimeoutMs()) {
  SetSocketTimeouts(fd_, timeout_ms_);
  ucred cred{};
  socklen_t len = sizeof cred;
  if (getsockopt(fd_, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) peer_pid_ = cred.pid;
  waiters_.reserve(16);
  in_.resize(kReadAhead);
}

Connection::~Connection() {
  close(fd_);
}

void Connection::CloseWithLog(const char* format, ...) {
  char text[256];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  Close(text);
}

void Connection::Close(const char* why) {
  std::vector<Object> released;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return;
    closed_ = true;
    exports_.ForgetPeer(&released);
    // Proxies stay valid for their holders; their calls now fail at once.
    imports_.clear();
    for (Waiter* waiter : waiters_) waiter->cv.notify_all();
  }
  if (why != nullptr) LogError("Connection to pid %d closed: %s", peer_pid_, why);
  shutdown(fd_, SHUT_RDWR);
  endpoint_->Forget(fd_);
  endpoint_->Remove(id_);
  ReleaseOwned(std::move(released));
}

void Connection::ReleaseOwned(std::vector<Object> objects) {
  if (objects.empty()) return;
  if (InLibraryContext()) {
    for (const Object& object : objects) ObjectRelease(object);
    return;
  }
  endpoint_->Dispatch([objects = std::move(objects)] {
    for (const Object& object : objects) ObjectRelease(object);
  });
}

void Connection::ExportRoot(const Object& root) {
  ObjectRetain(root);
  std::lock_guard<std::mutex> lock(mutex_);
  const uint32_t handle = exports_.Add(root);
  exports_.Get(handle)->sent = 1;
}

Object Connection::ImportRoot() {
  Proxy* proxy = new Proxy{shared_from_this(), 0, 1, 1};
  std::lock_guard<std::mutex> lock(mutex_);
  imports_[0] = proxy;
  return ProxyObject(proxy);
}

}  // namespace tarnsocket
