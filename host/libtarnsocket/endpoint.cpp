#include "endpoint.h"

#include <errno.h>
#include <malloc.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "buffer_pool.h"
#include "connection.h"
#include "log.h"
#include "thread_context.h"

namespace tarnsocket {
namespace {

constexpr uint64_t kWakeId = 1;
constexpr uint64_t kListenId = 2;
constexpr size_t kMaxWorkers = 256;
// Workers beyond these end after this long without work.
constexpr size_t kKeptWorkers = 4;
constexpr std::chrono::seconds kWorkerIdle{10};
// While the descriptor limit is reached, new connections wait in the
// backlog this long between tries; the warning comes at most this often.
constexpr std::chrono::milliseconds kAcceptPause{100};
constexpr std::chrono::seconds kAcceptWarningEvery{10};
// The monitor ticks every kTick while calls come in (and for kActiveFor
// after), else looks every kSlowTick while anything needs a look, else
// sleeps until an event.
constexpr std::chrono::milliseconds kTick = kUnwatchedGrace;
constexpr std::chrono::milliseconds kSlowTick{100};
constexpr std::chrono::seconds kActiveFor{1};

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

void Endpoint::WorkerLoop() {
  EnterWorkerThread();
  std::unique_lock<std::mutex> lock(pool_mutex_);
  for (;;) {
    ++idle_;
    const bool woken = pool_cv_.wait_for(lock, kWorkerIdle,
                                         [this] { return pool_stopping_ || !tasks_.empty(); });
    --idle_;
    if (!woken) {
      if (workers_.size() <= kKeptWorkers) continue;
      // A burst's extra workers go once it is over, and their stacks with them.
      const auto self = std::find_if(workers_.begin(), workers_.end(), [](const std::thread& t) {
        return t.get_id() == std::this_thread::get_id();
      });
      if (self == workers_.end()) continue;
      self->detach();
      workers_.erase(self);
      return;
    }
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
        PauseAccepting(error);
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

void Endpoint::PauseAccepting(int error) {
  // Level-triggered: the listening socket stays ready, so it is not watched
  // for a while; connected clients are served meanwhile.
  epoll_event muted{};
  muted.data.u64 = kListenId;
  epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, listen_fd_, &muted);
  const auto now = std::chrono::steady_clock::now();
  accept_paused_ = true;
  accept_resume_ = now + kAcceptPause;
  ++accept_failures_;
  if (accept_failures_ == 1 || now - last_accept_warning_ >= kAcceptWarningEvery) {
    LogWarning("accept failed: %d (%s); new connections wait (%llu times since the last warning)",
               error, strerror(error), static_cast<unsigned long long>(accept_failures_));
    last_accept_warning_ = now;
    accept_failures_ = 1;
  }
}

void Endpoint::WantSweep() {
  if (sleeping_.load()) {
    const uint64_t one = 1;
    ssize_t ignored = write(wake_fd_, &one, sizeof one);
    (void)ignored;
  }
}

void Endpoint::Sweep() {
  const auto now = std::chrono::steady_clock::now();
  std::vector<std::shared_ptr<Connection>> all;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    all.reserve(connections_.size());
    for (auto& entry : connections_) all.push_back(entry.second);
  }
  bool partial = false;
  const bool ticking = ticking_.load();
  for (auto& connection : all) partial = connection->Sweep(now, ticking) || partial;
  partial_frames_ = partial;
  if (accept_paused_ && now >= accept_resume_) {
    accept_paused_ = false;
    epoll_event listen{};
    listen.events = EPOLLIN;
    listen.data.u64 = kListenId;
    epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, listen_fd_, &listen);
  }
  const bool kept = BufferPool::Instance().Trim(now);
  if (trim_heap_ && !kept && !ticking) {
    // Memory that served calls freed stays in the allocator's per-thread
    // heaps, resident, until given back; once idle, give it back.
#ifdef __GLIBC__
    malloc_trim(0);
#endif
    trim_heap_ = false;
  }
}

int Endpoint::NextWait() {
  const auto now = std::chrono::steady_clock::now();
  const uint64_t activity = activity_.load(std::memory_order_relaxed);
  if (activity != seen_activity_) {
    seen_activity_ = activity;
    last_activity_ = now;
    trim_heap_ = true;
  }
  if (now - last_activity_ < kActiveFor) {
    ticking_.store(true);
    return static_cast<int>(kTick.count());
  }
  if (ticking_.load()) {
    // Unwatched sockets are armed now: nobody looks at them any more.
    ticking_.store(false);
    Sweep();
  }
  const auto reasons = [this] {
    return partial_frames_ || accept_paused_ || trim_heap_ || BufferPool::Instance().kept() > 0;
  };
  if (reasons()) return static_cast<int>(kSlowTick.count());
  sleeping_.store(true);
  // A look after sleeping_ is set: what changed before is seen here, what
  // changes after wakes the monitor.
  Sweep();
  if (reasons()) {
    sleeping_.store(false);
    return static_cast<int>(kSlowTick.count());
  }
  return -1;
}

void Endpoint::MonitorLoop() {
  bool running = true;
  auto last_sweep = std::chrono::steady_clock::now();
  last_activity_ = last_sweep - kActiveFor;
  while (running) {
    epoll_event events[32];
    const int n = epoll_wait(epoll_fd_, events, 32, NextWait());
    sleeping_.store(false);
    if (n < 0) {
      if (errno == EINTR) continue;
      LogError("Service ends: epoll_wait failed: %d (%s)", errno, strerror(errno));
      break;
    }
    bool sweep = false;
    for (int i = 0; i < n && running; ++i) {
      const uint64_t id = events[i].data.u64;
      if (id == kWakeId) {
        uint64_t value;
        ssize_t ignored = read(wake_fd_, &value, sizeof value);
        (void)ignored;
        std::lock_guard<std::mutex> lock(mutex_);
        running = !stopping_;
        sweep = true;
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
        if (connection != nullptr && connection->ReadForMonitor()) {
          NoteActivity();
          Dispatch([connection] { connection->ServeAsReader(); });
        }
      }
    }
    const auto now = std::chrono::steady_clock::now();
    if (running && (sweep || now - last_sweep >= (ticking_.load() ? kTick : kSlowTick))) {
      last_sweep = now;
      Sweep();
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
