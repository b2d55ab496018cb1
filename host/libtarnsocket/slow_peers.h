// Processes that recently left a service waiting for an answer. Their new
// connections to that service start on probation, so that a client cannot
// buy a fresh wait by connecting again.
#ifndef TARNSOCKET_SLOW_PEERS_H_
#define TARNSOCKET_SLOW_PEERS_H_

#include <sys/types.h>

#include <chrono>
#include <mutex>
#include <unordered_map>

#include "clock.h"

namespace tarnsocket {

constexpr std::chrono::seconds kSlowPeerMemory{60};

class SlowPeers {
 public:
  void Remember(pid_t pid);
  bool Recent(pid_t pid);

 private:
  std::mutex mutex_;
  std::unordered_map<pid_t, Clock::time_point> until_;
};

}  // namespace tarnsocket

#endif  // TARNSOCKET_SLOW_PEERS_H_
