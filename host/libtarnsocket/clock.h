// The one clock of the library's deadlines.
#ifndef TARNSOCKET_CLOCK_H_
#define TARNSOCKET_CLOCK_H_

#include <stdint.h>

#include <chrono>

namespace tarnsocket {

using Clock = std::chrono::steady_clock;

inline Clock::time_point After(uint32_t ms) {
  return Clock::now() + std::chrono::milliseconds(ms);
}

// Milliseconds from now until when, rounded up, at least 0.
inline int MillisecondsUntil(Clock::time_point when) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(when - Clock::now()).count();
  return left <= 0 ? 0 : left > 1000000 ? 1000000 : static_cast<int>(left);
}

}  // namespace tarnsocket

#endif  // TARNSOCKET_CLOCK_H_
