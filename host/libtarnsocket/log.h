// The library's own log lines: stderr, tag "tarnsocket", in the platform's
// host line format, so that the library does not depend on the daemon's
// logging.
#ifndef TARNSOCKET_LOG_H_
#define TARNSOCKET_LOG_H_

#include <stdint.h>

#include <chrono>

namespace tarnsocket {

// System-call failures carry strerror's text: for the errnos a call returns it is
// a fixed string in glibc and bionic, so the calls marked NOLINT below are safe.
void LogError(const char* format, ...) __attribute__((format(printf, 1, 2)));
void LogWarning(const char* format, ...) __attribute__((format(printf, 1, 2)));

// A warning about something that may happen many times a second: the first
// time, then at most once per period, counting what happened in between.
// Not thread-safe: its owner's lock guards it.
class WarningThrottle {
 public:
  using Clock = std::chrono::steady_clock;
  explicit WarningThrottle(Clock::duration every) : every_(every) {}
  // One more time; returns how many times it happened since the last
  // warning, this one included, if a warning is due now, else 0.
  uint64_t Note(Clock::time_point now) {
    ++count_;
    if (warned_ && now - last_ < every_) return 0;
    warned_ = true;
    last_ = now;
    const uint64_t count = count_;
    count_ = 0;
    return count;
  }
  void Reset() { *this = WarningThrottle(every_); }

 private:
  Clock::duration every_;
  Clock::time_point last_;
  bool warned_ = false;
  uint64_t count_ = 0;
};

}  // namespace tarnsocket

#endif  // TARNSOCKET_LOG_H_
