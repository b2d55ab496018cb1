// The connections of one service (or of all client connections of the
// process), the monitor thread that accepts and watches idle sockets with
// epoll, and the pool of worker threads that serve calls.
#ifndef TARNSOCKET_ENDPOINT_H_
#define TARNSOCKET_ENDPOINT_H_

#include <stdint.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include <tesk/object.h>

#include "log.h"
#include "slow_peers.h"

namespace tarnsocket {

class Connection;

class Endpoint {
 public:
  // listen_fd < 0: an endpoint for client connections only.
  Endpoint(int listen_fd, Object root);
  ~Endpoint();
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  // 0 or -errno.
  int Start();
  void Stop();
  void Join();

  // Registers a new connection and watches it if it is marked so.
  int Add(const std::shared_ptr<Connection>& connection);
  void Remove(uint64_t id);
  uint64_t NextId();

  // Watching an idle socket: one event, then the monitor stops looking.
  void Watch(int fd, uint64_t id);
  void Mute(int fd, uint64_t id);
  void Forget(int fd);

  void Dispatch(std::function<void()> task);

  SlowPeers& slow_peers() { return slow_peers_; }

  // Whether the monitor is looking at its connections every few
  // milliseconds, as it does while calls come in fast.
  bool Ticking() const { return ticking_.load(); }
  // A worker is about to serve a call it read (at now_ns on the library's
  // clock). Calls that come in fast start the tick; true if it runs.
  bool NoteCall(int64_t now_ns);
  // Something needs the monitor's regular look (a frame half read, buffers
  // kept for reuse): wakes it if it sleeps with nothing to look at.
  void WantSweep();

 private:
  static constexpr uint64_t kWakeId = 1;
  static constexpr uint64_t kListenId = 2;

  void MonitorLoop();
  // Ends the monitor's current wait (its eventfd).
  void WakeMonitor();
  // How long the monitor may wait for events: -1 for ever.
  int NextWait();
  // The regular look at every connection, the accept pause and the pool.
  void Sweep();
  // Takes note of calls served since the monitor last looked.
  void SeeCalls(std::chrono::steady_clock::time_point now);
  // False when accept failed for good.
  bool AcceptAll();
  void PauseAccepting(int error);
  void WorkerLoop();
  void StopWorkers();

  const int listen_fd_;
  const Object root_;
  int epoll_fd_ = -1;
  int wake_fd_ = -1;
  std::thread monitor_;
  std::mutex join_mutex_;

  // The monitor's own state.
  std::atomic<bool> ticking_{false};
  std::atomic<bool> sleeping_{false};  // waiting for events with no time limit
  std::atomic<uint64_t> calls_{0};     // served calls that workers read
  // While not ticking: the calls since window_start_ns_.
  std::atomic<int64_t> window_start_ns_{0};
  std::atomic<uint32_t> window_calls_{0};
  uint64_t seen_calls_ = 0;
  std::chrono::steady_clock::time_point last_call_;  // as the monitor saw it
  // The tick period being counted (empty while not ticking) and calls_ then.
  std::chrono::steady_clock::time_point tick_start_;
  uint64_t tick_start_calls_ = 0;
  bool partial_frames_ = false;
  bool accept_paused_ = false;
  std::chrono::steady_clock::time_point accept_resume_;
  WarningThrottle accept_warning_{std::chrono::seconds(10)};
  bool trim_heap_ = false;  // give freed heap memory back once idle

  std::mutex mutex_;
  bool stopping_ = false;
  uint64_t next_id_ = 16;
  std::unordered_map<uint64_t, std::shared_ptr<Connection>> connections_;

  SlowPeers slow_peers_;

  std::mutex pool_mutex_;
  std::condition_variable pool_cv_;
  std::deque<std::function<void()>> tasks_;
  std::vector<std::thread> workers_;
  size_t idle_ = 0;
  bool pool_stopping_ = false;
};

}  // namespace tarnsocket

#endif  // TARNSOCKET_ENDPOINT_H_
