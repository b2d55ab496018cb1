// The endpoint's monitor: accepting, reading sockets that nobody else
// reads, and its regular look at connections, the accept pause and the
// buffer pool.
#include <errno.h>
#include <malloc.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <vector>

#include "buffer_pool.h"
#include "connection.h"
#include "endpoint.h"
#include "log.h"

namespace tarnsocket {
namespace {

// While the descriptor limit is reached, new connections wait in the
// backlog this long between tries.
constexpr std::chrono::milliseconds kAcceptPause{100};
// The monitor ticks every kTick while calls come in fast, else looks every
// kSlowTick while anything needs a look, else sleeps until an event.
constexpr std::chrono::milliseconds kTick = kUnwatchedGrace;
constexpr std::chrono::milliseconds kSlowTick{100};
// Ticking lets a served call leave its socket unwatched, saving the two
// epoll_ctl calls around it; a wake-up every tick costs more than that unless
// calls come in fast. The tick starts once kBusyCalls come within one tick,
// and stops after a tick that saw fewer than kStillBusyCalls: a process that
// takes a call now and then never ticks.
constexpr uint32_t kBusyCalls = 4;
constexpr uint64_t kStillBusyCalls = 2;
// Heap memory freed by served calls goes back once calls stop this long.
constexpr std::chrono::seconds kIdleFor{1};

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
      LogError("Service ends: accept failed: %d (%s)", error,
               strerror(error));  // NOLINT(concurrency-mt-unsafe)
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
  if (const uint64_t failures = accept_warning_.Note(now); failures != 0) {
    LogWarning("accept failed: %d (%s); new connections wait (%llu times since the last warning)",
               error, strerror(error),  // NOLINT(concurrency-mt-unsafe)
               static_cast<unsigned long long>(failures));
  }
}

void Endpoint::WakeMonitor() {
  const uint64_t one = 1;
  ssize_t ignored = write(wake_fd_, &one, sizeof one);
  (void)ignored;
}

void Endpoint::WantSweep() {
  if (sleeping_.load()) WakeMonitor();
}

void Endpoint::Sweep() {
  const auto now = std::chrono::steady_clock::now();
  SeeCalls(now);
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
  if (trim_heap_ && !kept && !ticking && now - last_call_ >= kIdleFor) {
    // Memory that served calls freed stays in the allocator's per-thread
    // heaps, resident, until given back; once idle, give it back.
#ifdef __GLIBC__
    malloc_trim(0);
#endif
    trim_heap_ = false;
  }
}

bool Endpoint::NoteCall(int64_t now_ns) {
  calls_.fetch_add(1, std::memory_order_relaxed);
  if (ticking_.load()) return true;
  // Workers race on the window; a call miscounted now and then only moves
  // the start a little.
  if (now_ns - window_start_ns_.load(std::memory_order_relaxed) >=
      std::chrono::nanoseconds(kTick).count()) {
    window_start_ns_.store(now_ns, std::memory_order_relaxed);
    window_calls_.store(1, std::memory_order_relaxed);
    return false;
  }
  if (window_calls_.fetch_add(1, std::memory_order_relaxed) + 1 < kBusyCalls) return false;
  // However long the monitor meant to wait, it takes up the tick now.
  if (!ticking_.exchange(true)) WakeMonitor();
  return true;
}

void Endpoint::SeeCalls(std::chrono::steady_clock::time_point now) {
  // Workers serve calls while the monitor sleeps: it learns of them here.
  const uint64_t calls = calls_.load(std::memory_order_relaxed);
  if (calls != seen_calls_) {
    seen_calls_ = calls;
    last_call_ = now;
    trim_heap_ = true;
  }
}

int Endpoint::NextWait() {
  const auto now = std::chrono::steady_clock::now();
  SeeCalls(now);
  const uint64_t calls = seen_calls_;
  if (ticking_.load()) {
    if (tick_start_ == std::chrono::steady_clock::time_point()) {
      // A worker started the tick.
      tick_start_ = now;
      tick_start_calls_ = calls;
    } else if (now - tick_start_ >= kTick) {
      if (calls - tick_start_calls_ >= kStillBusyCalls) {
        tick_start_ = now;
        tick_start_calls_ = calls;
      } else {
        // Unwatched sockets are armed now: nobody looks at them any more.
        tick_start_ = std::chrono::steady_clock::time_point();
        ticking_.store(false);
        Sweep();
      }
    }
    if (ticking_.load()) return static_cast<int>(kTick.count());
  }
  // The heap's trim waits for calls to stop for kIdleFor (see Sweep).
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
  last_call_ = last_sweep - kIdleFor;
  while (running) {
    epoll_event events[32];
    const int n = epoll_wait(epoll_fd_, events, 32, NextWait());
    sleeping_.store(false);
    if (n < 0) {
      if (errno == EINTR) continue;
      LogError("Service ends: epoll_wait failed: %d (%s)", errno,
               strerror(errno));  // NOLINT(concurrency-mt-unsafe)
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
