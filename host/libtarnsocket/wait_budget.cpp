#include "wait_budget.h"

#include <algorithm>

namespace tarnsocket {
namespace {

constexpr int64_t kNsPerMs = 1000000;
// An answer within kGrace is free, so that fast clients, however many and
// however often called, do not use the budget up. A wait may take kGrace
// even from a spent budget while the debt is under kGraceDebt; past kGrace
// it is charged in full. So the grace adds at most kGraceDebt to what
// misbehaving clients can cost.
constexpr int64_t kGraceNs = 1 * kNsPerMs;
constexpr int64_t kGraceDebtNs = 20 * kNsPerMs;

}  // namespace

WaitBudget& WaitBudget::Instance() {
  // Never destroyed: library threads may wait on clients during exit.
  static WaitBudget* budget = new WaitBudget();  // NOLINT(cppcoreguidelines-owning-memory)
  return *budget;
}

void WaitBudget::Configure(uint32_t capacity_ms, uint32_t refill_ms) {
  std::lock_guard<std::mutex> lock(mutex_);
  capacity_ms_ = capacity_ms;
  refill_ms_ = refill_ms;
  level_ns_ = int64_t{capacity_ms} * kNsPerMs;
  updated_ = Clock::now();
  cut_warning_.Reset();
}

void WaitBudget::RefillLocked(Clock::time_point now) {
  const int64_t capacity = int64_t{capacity_ms_} * kNsPerMs;
  const int64_t elapsed =
      std::chrono::duration_cast<std::chrono::nanoseconds>(now - updated_).count();
  updated_ = now;
  if (elapsed <= 0 || level_ns_ >= capacity) return;
  // Whole seconds first, so that a long idle time cannot overflow.
  const int64_t seconds = elapsed / 1000000000;
  if (seconds > 2 * int64_t{capacity_ms_} / refill_ms_ + 1) {
    level_ns_ = capacity;
    return;
  }
  level_ns_ += seconds * refill_ms_ * kNsPerMs + (elapsed % 1000000000) * refill_ms_ / 1000;
  if (level_ns_ > capacity) level_ns_ = capacity;
}

Clock::duration WaitBudget::Left(Clock::time_point now) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (refill_ms_ == 0) return Clock::duration::max();  // no service configured it
  RefillLocked(now);
  if (level_ns_ >= int64_t{capacity_ms_} * kNsPerMs) return Clock::duration::max();
  const int64_t grace = level_ns_ > -kGraceDebtNs ? kGraceNs : 0;
  return std::chrono::nanoseconds(std::max(level_ns_, grace));
}

void WaitBudget::Spend(Clock::time_point start, bool cut) {
  const Clock::time_point now = Clock::now();
  uint64_t cuts = 0;
  uint32_t capacity_ms = 0, refill_ms = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (refill_ms_ == 0) return;
    RefillLocked(now);
    const int64_t took = std::chrono::duration_cast<std::chrono::nanoseconds>(now - start).count();
    if (!cut && took <= kGraceNs) return;
    level_ns_ -= took;
    // At most one capacity of debt: that is as long as anybody waits for it.
    level_ns_ = std::max(level_ns_, -int64_t{capacity_ms_} * kNsPerMs);
    if (!cut) return;
    cuts = cut_warning_.Note(now);
    if (cuts == 0) return;
    capacity_ms = capacity_ms_;
    refill_ms = refill_ms_;
  }
  LogWarning(
      "waiting on clients: the process's budget of %u ms (refilled %u ms a second) is spent; "
      "%llu calls not waited for since the last warning",
      capacity_ms, refill_ms, static_cast<unsigned long long>(cuts));
}

}  // namespace tarnsocket
