// The endpoint's connections and its pool of workers.
#include "endpoint.h"

#include <errno.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>

#include "connection.h"
#include "log.h"
#include "thread_context.h"

namespace tarnsocket {
namespace {

constexpr size_t kMaxWorkers = 256;
// One worker stays, asleep until there is work (no timed wake-ups while
// idle); the others end after a second without work, so that an idle process
// holds one worker's stack and heap whatever its last burst needed.
constexpr size_t kKeptWorkers = 1;
constexpr std::chrono::seconds kWorkerIdle{1};

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
    monitor_ = std::thread([this] {
      pthread_setname_np(pthread_self(), "tarn:monitor");  // for ps -T and profiles
      MonitorLoop();
    });
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
  WakeMonitor();
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
    // Woken after the unlock: on a busy core the worker would otherwise run
    // only to block on the lock this thread still holds.
    lock.unlock();
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
  lock.unlock();
  pool_cv_.notify_one();
}

void Endpoint::WorkerLoop() {
  pthread_setname_np(pthread_self(), "tarn:worker");
  EnterWorkerThread();
  std::unique_lock<std::mutex> lock(pool_mutex_);
  for (;;) {
    ++idle_;
    const auto work = [this] { return pool_stopping_ || !tasks_.empty(); };
    bool woken = true;
    if (workers_.size() <= kKeptWorkers) {
      pool_cv_.wait(lock, work);
    } else {
      woken = pool_cv_.wait_for(lock, kWorkerIdle, work);
    }
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

}  // namespace tarnsocket
