// Shared by the scan object tests: a client callback object that records
// what the daemon does to it, and a capture of the daemon's log lines.
#ifndef TESK_TESTS_SCAN_OBJECTS_SCAN_TEST_SUPPORT_H_
#define TESK_TESTS_SCAN_OBJECTS_SCAN_TEST_SUPPORT_H_

#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "ky_loc_fw/log.h"
#include "ky_loc_fw/log_capture.h"
#include "ky_loc_fw/vela_test_control.h"
#include "service/object.h"

namespace scan_test {

using Bytes = std::vector<uint8_t>;

struct Delivery {
  uint32_t op = 0;
  uint32_t counts = 0;
  std::vector<Bytes> buffers;
  std::vector<bool> null_pointer;
};

// Copies every delivery while it runs, as a real client must.
class FakeCallback {
 public:
  Object object() { return Object{Invoke, this}; }

  std::vector<Delivery> deliveries() {
    std::lock_guard<std::mutex> lock(mutex_);
    return deliveries_;
  }
  int retains() {
    std::lock_guard<std::mutex> lock(mutex_);
    return retains_;
  }
  int releases() {
    std::lock_guard<std::mutex> lock(mutex_);
    return releases_;
  }

 private:
  static int32_t Invoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts) {
    auto* self = static_cast<FakeCallback*>(context);
    std::lock_guard<std::mutex> lock(self->mutex_);
    switch (op & OBJECT_OP_MASK) {
      case OBJECT_OP_RETAIN:
        ++self->retains_;
        return 0;
      case OBJECT_OP_RELEASE:
        ++self->releases_;
        return 0;
      default: {
        Delivery delivery;
        delivery.op = op;
        delivery.counts = counts;
        for (unsigned i = 0; i < OBJECT_COUNTS_IN_BUFS(counts); ++i) {
          const auto* bytes = static_cast<const uint8_t*>(args[i].b.ptr);
          delivery.null_pointer.push_back(bytes == nullptr);
          delivery.buffers.emplace_back(bytes, bytes == nullptr ? bytes : bytes + args[i].b.size);
        }
        self->deliveries_.push_back(delivery);
        // Its answer is never looked at.
        return 7;
      }
    }
  }

  std::mutex mutex_;
  std::vector<Delivery> deliveries_;
  int retains_ = 0;
  int releases_ = 0;
};

// Lines of the scan objects (tag "tesk", "DiscoveryScan: " and "RangingScan: ")
// as "<letter> <text>", debug included.
class LogLines {
 public:
  LogLines() {
    ky_loc_fw::log_set_local_level_for_tag("tesk", 2);
    ky_loc_fw::log_set_sink(Sink, this, true);
  }
  ~LogLines() { ky_loc_fw::log_set_sink(nullptr, nullptr, false); }

  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  static void Sink(void* context, char letter, const char* tag, const char* text) {
    auto* self = static_cast<LogLines*>(context);
    const std::string line = text;
    if (std::string(tag) != "tesk" ||
        (line.rfind("DiscoveryScan: ", 0) != 0 && line.rfind("RangingScan: ", 0) != 0)) {
      return;
    }
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.push_back(std::string(1, letter) + " " + text);
  }

  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// Requests are answered only by what a test delivers itself.
inline void ManualAnswers(int send_result = 0) {
  ky_loc_fw::vela_test::Reset();
  ky_loc_fw::vela_test::SetSendHook([send_result](const ky_loc_fw::vela_test::SentRequest&,
                                                  ky_loc_fw::vela_test::SendAction* action) {
    action->result = send_result;
    action->automaticAnswer = false;
  });
}

template <typename T>
Bytes AsBytes(const T& record) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&record);
  return Bytes(bytes, bytes + sizeof record);
}

template <typename T>
T FromBytes(const Bytes& bytes, size_t index = 0) {
  T record{};
  if (bytes.size() >= (index + 1) * sizeof(T)) {
    memcpy(&record, bytes.data() + index * sizeof(T), sizeof(T));
  }
  return record;
}

}  // namespace scan_test

#endif  // TESK_TESTS_SCAN_OBJECTS_SCAN_TEST_SUPPORT_H_
