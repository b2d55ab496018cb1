// Every line logged under one tag while alive, as "<letter> <text>", for tests
// that check what the daemon's code logs.
#ifndef TESK_TESTS_SUPPORT_LOG_LINES_H_
#define TESK_TESTS_SUPPORT_LOG_LINES_H_

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "ky_loc_fw/log_capture.h"

namespace tesk_test {

class LogLines {
 public:
  explicit LogLines(const char* tag = "tesk") : tag_(tag) {
    ky_loc_fw::log_set_sink(&LogLines::Sink, this, true);
  }
  ~LogLines() { ky_loc_fw::log_set_sink(nullptr, nullptr, false); }
  LogLines(const LogLines&) = delete;
  LogLines& operator=(const LogLines&) = delete;

  // The lines logged since the last call.
  std::vector<std::string> Take() {
    std::vector<std::string> taken;
    std::lock_guard<std::mutex> lock(mutex_);
    taken.swap(lines_);
    return taken;
  }

 private:
  static void Sink(void* context, char letter, const char* tag, const char* text) {
    auto* self = static_cast<LogLines*>(context);
    if (strcmp(tag, self->tag_) != 0) return;
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.push_back(std::string(1, letter) + " " + text);
  }

  const char* tag_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace tesk_test

#endif  // TESK_TESTS_SUPPORT_LOG_LINES_H_
