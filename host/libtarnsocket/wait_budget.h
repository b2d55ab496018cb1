// The time this process may spend blocked on its clients, shared by every
// connection of every service it runs: a token bucket. A service's call into
// a client's object waits at most what is left (never longer than that
// client's own limit), and every such call that is not answered at once
// spends what it took. However many clients misbehave at once, a calling
// thread is held at most the capacity (or one client's own limit, if
// longer) and a small grace, plus what flows back in meanwhile: with C ms
// and R ms a second, (C + 20) / (1 - R / 1000).
#ifndef TARNSOCKET_WAIT_BUDGET_H_
#define TARNSOCKET_WAIT_BUDGET_H_

#include <stdint.h>

#include <mutex>

#include "clock.h"
#include "log.h"

namespace tarnsocket {

class WaitBudget {
 public:
  static WaitBudget& Instance();

  // Full again, holding up to capacity_ms and refilled by refill_ms a
  // second; the next cut is logged at once.
  void Configure(uint32_t capacity_ms, uint32_t refill_ms);
  // How long a wait that starts at `now` may take: at least a millisecond's
  // grace unless the budget is deep in debt. A full budget does not limit
  // the wait: a lone offender is waited for up to its own limit, and puts
  // the budget in debt if that is longer.
  Clock::duration Left(Clock::time_point now);
  // A wait that started at `start` is over; it costs nothing if it was
  // answered within the grace. cut: the budget ended it, not the peer's own
  // limit; logged at most every 10 s.
  void Spend(Clock::time_point start, bool cut);

 private:
  void RefillLocked(Clock::time_point now);

  std::mutex mutex_;
  uint32_t capacity_ms_ = 0;
  uint32_t refill_ms_ = 0;
  // May go below zero: waits that overlap on several threads each spend
  // what they took, and the debt is paid back before anyone waits again.
  int64_t level_ns_ = 0;
  Clock::time_point updated_;
  WarningThrottle cut_warning_{std::chrono::seconds(10)};
};

}  // namespace tarnsocket

#endif  // TARNSOCKET_WAIT_BUDGET_H_
