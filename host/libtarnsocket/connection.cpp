// A connection's life: construction, the root export and import, and the
// end, which releases everything the peer held.
#include "connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <utility>

#include "endpoint.h"
#include "log.h"
#include "thread_context.h"

namespace tarnsocket {
namespace {

thread_local std::vector<Object>* t_releasing = nullptr;

// An owner's release may free what holds further objects of ours, and so on
// down a chain as long as a peer cared to build: on a thread that is already
// releasing, they join its list instead of nesting, so any chain takes the
// stack of one link.
void ReleaseInTurn(std::vector<Object> objects) {
  if (t_releasing != nullptr) {
    t_releasing->insert(t_releasing->end(), objects.begin(), objects.end());
    return;
  }
  t_releasing = &objects;
  for (size_t i = 0; i < objects.size(); ++i) {
    const Object object = objects[i];  // the list may grow meanwhile
    ObjectRelease(object);
  }
  t_releasing = nullptr;
}

}  // namespace

Connection::Connection(int fd, Side side, Endpoint* endpoint, uint64_t id)
    : fd_(fd),
      side_(side),
      endpoint_(endpoint),
      id_(id),
      limits_(ReadLimits()),
      peer_timeout_ms_(side == Side::kServer ? limits_.callback_timeout_ms
                                             : limits_.call_timeout_ms),
      // Limits on what the peer sends protect a service from its clients.
      reader_(limits_.frame_timeout_ms,
              side == Side::kServer ? limits_.max_call_bytes : kMaxBodySize) {
  SetShortReceiveWait(fd_);
  ucred cred{};
  socklen_t len = sizeof cred;
  if (getsockopt(fd_, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) peer_pid_ = cred.pid;
  waiters_.reserve(16);
  probation_ = side_ == Side::kServer && endpoint_->slow_peers().Recent(peer_pid_);
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

void Connection::LogRefusal(bool* logged, const char* format, ...) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (*logged) return;
    *logged = true;
  }
  char text[256];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  LogWarning("Connection to pid %d: %s", peer_pid_, text);
}

void Connection::Close(const char* why) {
  std::vector<Object> released;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return;
    closed_ = true;
    unwatched_since_ns_.store(0);
    exports_.ForgetPeer(&released);
    // Proxies stay valid for their holders; their calls now fail at once.
    imports_.clear();
    WakeWaitersLocked();
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
    ReleaseInTurn(std::move(objects));
    return;
  }
  endpoint_->Dispatch(
      [objects = std::move(objects)]() mutable { ReleaseInTurn(std::move(objects)); });
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
