// Shared fixtures of the deauth tests: a captured log and a recorder of
// delivered events that a test can wait on.
#ifndef TESK_TESTS_DEAUTH_TEST_SUPPORT_H_
#define TESK_TESTS_DEAUTH_TEST_SUPPORT_H_

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "deauth/deauth_event.h"
#include "ky_loc_fw/log.h"
#include "ky_loc_fw/log_capture.h"
#include "service/object.h"

namespace deauth_test {

// Every line logged with the tag "tesk" while alive, as "<letter> <text>".
class LogCapture {
 public:
  LogCapture() { ky_loc_fw::log_set_sink(&LogCapture::Sink, this, true); }
  ~LogCapture() { ky_loc_fw::log_set_sink(nullptr, nullptr, false); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> Lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  static void Sink(void* context, char letter, const char* tag, const char* text) {
    auto* self = static_cast<LogCapture*>(context);
    if (std::string(tag) != "tesk") return;
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.push_back(std::string(1, letter) + " " + text);
  }

  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// Events in arrival order. With a gate closed, the first event to arrive
// holds its delivering thread until the gate opens.
class EventRecorder {
 public:
  void Add(const DeauthEvent& event) {
    std::unique_lock<std::mutex> lock(mutex_);
    events_.push_back(event);
    changed_.notify_all();
    changed_.wait(lock, [this] { return !gate_closed_ || events_.size() > 1; });
  }

  std::vector<DeauthEvent> WaitFor(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return events_.size() >= count; });
    return events_;
  }

  void CloseGate() {
    std::lock_guard<std::mutex> lock(mutex_);
    gate_closed_ = true;
  }
  void OpenGate() {
    std::lock_guard<std::mutex> lock(mutex_);
    gate_closed_ = false;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<DeauthEvent> events_;
  bool gate_closed_ = false;
};

// A client callback object that counts what the daemon does with it. A
// delivery that is not one 16-byte buffer, or that comes while the object
// holds no reference from the daemon, is counted as bad.
class FakeCallback {
 public:
  explicit FakeCallback(EventRecorder* recorder = nullptr, int32_t result = 0)
      : recorder_(recorder), result_(result) {}

  Object object() { return Object{&FakeCallback::Invoke, this}; }

  std::atomic<int> retains{0};
  std::atomic<int> releases{0};
  std::atomic<int> deliveries{0};
  std::atomic<int> bad_deliveries{0};

 private:
  static int32_t Invoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts) {
    auto* self = static_cast<FakeCallback*>(context);
    switch (op) {
      case OBJECT_OP_RETAIN:
        ++self->retains;
        break;
      case OBJECT_OP_RELEASE:
        ++self->releases;
        break;
      case OBJECT_OP_METHOD: {
        ++self->deliveries;
        if (counts != OBJECT_COUNTS(1, 0, 0, 0) || args[0].b.size != sizeof(DeauthEvent) ||
            self->retains.load() <= self->releases.load()) {
          ++self->bad_deliveries;
          break;
        }
        DeauthEvent event;
        memcpy(&event, args[0].b.ptr, sizeof event);
        if (self->recorder_ != nullptr) self->recorder_->Add(event);
        break;
      }
      default:
        ++self->bad_deliveries;
        break;
    }
    return self->result_;
  }

  EventRecorder* recorder_;
  int32_t result_;
};

// A connected datagram pair: [0] for the side under test, [1] for the test.
struct DatagramPair {
  explicit DatagramPair(int extra_flags = 0) {
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | extra_flags, 0, fds) != 0) {
      fds[0] = fds[1] = -1;
    }
  }
  ~DatagramPair() {
    if (fds[1] >= 0) close(fds[1]);
    if (fds[0] >= 0) close(fds[0]);
  }
  DatagramPair(const DatagramPair&) = delete;
  DatagramPair& operator=(const DatagramPair&) = delete;

  // Hands the first end over to its new owner.
  int TakeFirst() {
    const int fd = fds[0];
    fds[0] = -1;
    return fd;
  }
  bool Send(const std::vector<uint8_t>& datagram) const {
    return send(fds[1], datagram.data(), datagram.size(), 0) ==
           static_cast<ssize_t>(datagram.size());
  }

  int fds[2];
};

}  // namespace deauth_test

#endif  // TESK_TESTS_DEAUTH_TEST_SUPPORT_H_
