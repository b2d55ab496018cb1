#include "slow_peers.h"

namespace tarnsocket {
namespace {

// Bounded: the oldest entries go first when it is full.
constexpr size_t kMaxRemembered = 1024;

}  // namespace

void SlowPeers::Remember(pid_t pid) {
  if (pid <= 0) return;
  const Clock::time_point now = Clock::now();
  std::lock_guard<std::mutex> lock(mutex_);
  if (until_.size() >= kMaxRemembered) {
    for (auto it = until_.begin(); it != until_.end();) {
      it = it->second <= now ? until_.erase(it) : std::next(it);
    }
    while (until_.size() >= kMaxRemembered) {
      auto oldest = until_.begin();
      for (auto it = until_.begin(); it != until_.end(); ++it) {
        if (it->second < oldest->second) oldest = it;
      }
      until_.erase(oldest);
    }
  }
  until_[pid] = now + kSlowPeerMemory;
}

bool SlowPeers::Recent(pid_t pid) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = until_.find(pid);
  if (it == until_.end()) return false;
  if (it->second > Clock::now()) return true;
  until_.erase(it);
  return false;
}

}  // namespace tarnsocket
