#include "endpoint.h"

#include <errno.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "connection.h"
#include "log.h"
#include "thread_context.h"

namespace tarnsocket {
namespace {

constexpr uint64_t kWakeId = 1;
constexpr uint64_t kListenId = 2;
constexpr size_t kMaxWorkers = 256;
constexpr int kAcceptBackoffMs = 100;

bool TransientAcceptError(int error) {
  switch (error) {
    case EINTR:
    case ECONNABORTED:
    case EPROTO:
    case EPERM:
    case ENETDOWN:
    case ENOPROTOOPT:
    case EHOSTDOWN:
    case ENONET:
    case EHOSTUNREACH:
    case ENETUNREACH:
      return true;
    default:
      return false;
  }
}

bool OutOfResources(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

Endpoint::Endpoint(int listen_fd, Object root) : listen_fd_(listen_fd), root_(root) {}

Endpoint::~Endpoint() {
  if (epoll_fd_ >= 0) close(epoll_fd_);
  if (wake_fd_ >= 0) close(wake_fd_);
}

int Endpoint::Start() {
  epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
  if (epoll_fd_ < 0) return -errno;
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd_ < 0) return -errno;
  epoll_event wake{};
  wake.events = EPOLLIN;
  wake.data.u64 = kWakeId;
  if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, wake_fd_, &wake) != 0) return -errno;
  if (listen_fd_ >= 0) {
    epoll_event listen{};
    listen.events = EPOLLIN;
    listen.data.u64 = kListenId;
    if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, listen_fd_, &listen) != 0) return -errno;
  }
  try {
    monitor_ = std::thread([this] { MonitorLoop(); });
  } catch (const std::system_error& e) {
    return -e.code().value();
  }
  return 0;
}

void Endpoint::Stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  const uint64_t one = 1;
  ssize_t ignored = write(wake_fd_, &one, sizeof one);
  (void)ignored;
}

void Endpoint::Join() {
  std::lock_guard<std::mutex> lock(join_mutex_);
  if (monitor_.joinable()) monitor_.join();
}

uint64_t Endpoint::NextId() {
  std::lock_guard<std::mutex> lock(mutex_);
  return next_id_++;
}

int Endpoint::Add(const std::shared_ptr<Connection>& connection) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return -ESHUTDOWN;
    connections_[connection->id()] = connection;
  }
  epoll_event event{};
  // Registered muted; a connection that wants watching is armed at once.
  event.events = EPOLLONESHOT;
  event.data.u64 = connection->id();
  if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, connection->fd(), &event) != 0) {
    const int error = errno;
    Remove(connection->id());
    return -error;
  }
  return 0;
}

void Endpoint::Remove(uint64_t id) {
  std::shared_ptr<Connection> gone;  // destroyed outside the lock
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = connections_.find(id);
  if (it == connections_.end()) return;
  gone = std::move(it->second);
  connections_.erase(it);
}

void Endpoint::Watch(int fd, uint64_t id) {
  epoll_event event{};
  event.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
  event.data.u64 = id;
  epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, fd, &event);
}

void Endpoint::Mute(int fd, uint64_t id) {
  epoll_event event{};
  event.events = EPOLLONESHOT;
  event.data.u64 = id;
  epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, fd, &event);
}

void Endpoint::Forget(int fd) {
  epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, fd, nullptr);
}

void Endpoint::Dispatch(std::function<void()> task) {
  std::unique_lock<std::mutex> lock(pool_mutex_);
  if (pool_stopping_ && workers_.empty()) {
    // Nobody is left to run it: the service has ended.
    lock.unlock();
    task();
    return;
  }
  tasks_.push_back(std::move(task));
  if (tasks_.size() <= idle_) {
    pool_cv_.notify_one();
    return;
  }
  if (!pool_stopping_ && workers_.size() < kMaxWorkers) {
    try {
      workers_.emplace_back([this] { WorkerLoop(); });
      return;
    } catch (const std::system_error&) {
      LogError("Cannot start a worker thread; the call waits for a free one");
    }
  }
  pool_cv_.notify_one();
}

bool Endpoint::Saturated() {
  std::lock_guard<std::mutex> lock(pool_mutex_);
  return !tasks_.empty();
}

void Endpoint::WorkerLoop() {
  EnterWorkerThread();
  std::unique_lock<std::mutex> lock(pool_mutex_);
  for (;;) {
    ++idle_;
    pool_cv_.wait(lock, [this] { return pool_stopping_ || !tasks_.empty(); });
    --idle_;
    if (tasks_.empty()) return;
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    task = nullptr;
    lock.lock();
  }
}

void Endpoint::StopWorkers() {
  std::vector<std::thread> workers;
  {
    std::lock_guard<std::mutex> lock(pool_mutex_);
    pool_stopping_ = true;
    pool_cv_.notify_all();
    workers.swap(workers_);
  }
  for (std::thread& worker : workers) worker.join();
  // A task handed over while the last workers were leaving.
  std::deque<std::function<void()>> left;
  {
    std::lock_guard<std::mutex> lock(pool_mutex_);
    left.swap(tasks_);
  }
  for (auto& task : left) task();
}

bool Endpoint::AcceptAll() {
  for (;;) {
    const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      const int error = errno;
      if (error == EAGAIN || error == EWOULDBLOCK) return true;
      if (TransientAcceptError(error)) continue;
      if (OutOfResources(error)) {
        // Level-triggered: without a pause the monitor would spin.
        LogWarning("accept failed: %d (%s); pausing", error, strerror(error));
        usleep(kAcceptBackoffMs * 1000);
        return true;
      }
      LogError("Service ends: accept failed: %d (%s)", error, strerror(error));
      return false;
    }
    auto connection = std::make_shared<Connection>(fd, Connection::Side::kServer, this, NextId());
    connection->ExportRoot(root_);
    connection->set_watched(true);
    if (Add(connection) != 0) {
      connection->Close(nullptr);
      continue;
    }
    Watch(fd, connection->id());
  }
}

void Endpoint::MonitorLoop() {
  bool running = true;
  while (running) {
    epoll_event events[32];
    const int n = epoll_wait(epoll_fd_, events, 32, -1);
    if (n < 0) {
      if (errno == EINTR) continue;
      LogError("Service ends: epoll_wait failed: %d (%s)", errno, strerror(errno));
      break;
    }
    for (int i = 0; i < n && running; ++i) {
      const uint64_t id = events[i].data.u64;
      if (id == kWakeId) {
        uint64_t value;
        ssize_t ignored = read(wake_fd_, &value, sizeof value);
        (void)ignored;
        std::lock_guard<std::mutex> lock(mutex_);
        running = !stopping_;
      } else if (id == kListenId) {
        running = AcceptAll();
        // A shut-down listening socket reports a hang-up but accept() only
        // says "try again": it will never accept anything more.
        if (running && (events[i].events & (EPOLLHUP | EPOLLERR)) != 0) {
          LogError("Service ends: the listening socket was shut down");
          running = false;
        }
      } else {
        std::shared_ptr<Connection> connection;
        {
          std::lock_guard<std::mutex> lock(mutex_);
          auto it = connections_.find(id);
          if (it != connections_.end()) connection = it->second;
        }
        if (connection != nullptr && connection->ClaimReadSide()) {
          Dispatch([connection] { connection->ServeAsReader(); });
        }
      }
    }
  }
  std::vector<std::shared_ptr<Connection>> open;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    for (auto& entry : connections_) open.push_back(entry.second);
  }
  if (listen_fd_ >= 0) epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, listen_fd_, nullptr);
  for (auto& connection : open) connection->Close(nullptr);
  open.clear();
  StopWorkers();
}

}  // namespace tarnsocket
