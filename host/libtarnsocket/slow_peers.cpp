#include "slow_peers.h"

#include <mutex>
#include <unordered_map>

#include "clock.h"

namespace tarnsocket {
namespace {

// Bounded: the oldest entries go first when it is full.
constexpr size_t kMaxRemembered = 1024;

struct SlowPeers {
  std::mutex mutex;
  std::unordered_map<pid_t, Clock::time_point> until;
};

SlowPeers& State() {
  // Never destroyed: library threads may use it during exit.
  static SlowPeers* state = new SlowPeers();  // NOLINT(cppcoreguidelines-owning-memory)
  return *state;
}

}  // namespace

void RememberSlowPeer(pid_t pid) {
  if (pid <= 0) return;
  SlowPeers& s = State();
  const Clock::time_point now = Clock::now();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (s.until.size() >= kMaxRemembered) {
    for (auto it = s.until.begin(); it != s.until.end();) {
      it = it->second <= now ? s.until.erase(it) : std::next(it);
    }
    while (s.until.size() >= kMaxRemembered) {
      auto oldest = s.until.begin();
      for (auto it = s.until.begin(); it != s.until.end(); ++it) {
        if (it->second < oldest->second) oldest = it;
      }
      s.until.erase(oldest);
    }
  }
  s.until[pid] = now + kSlowPeerMemory;
}

bool RecentlySlowPeer(pid_t pid) {
  SlowPeers& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  auto it = s.until.find(pid);
  if (it == s.until.end()) return false;
  if (it->second > Clock::now()) return true;
  s.until.erase(it);
  return false;
}

}  // namespace tarnsocket
