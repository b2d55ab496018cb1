// Fakes shared by the dispatcher tests: a remote callback object that counts
// what the dispatcher does to it, a recorder of response-function calls and
// a capture of the daemon's log lines.
#ifndef TESK_TESTS_DISPATCH_DISPATCH_FAKES_H_
#define TESK_TESTS_DISPATCH_DISPATCH_FAKES_H_

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "dispatch/vela_dispatcher.h"
#include "ky_loc_fw/log.h"
#include "ky_loc_fw/log_capture.h"
#include "ky_loc_fw/vela_request.h"
#include "service/object.h"

namespace dispatch_test {

// A client's callback object as the dispatcher sees it.
struct FakeRemote {
  std::atomic<int> retains{0};
  std::atomic<int> releases{0};
  std::atomic<int> other_calls{0};

  Object object() { return Object{&FakeRemote::Invoke, this}; }

  static int32_t Invoke(void* context, uint32_t op, ObjectArg* /*args*/, uint32_t /*counts*/) {
    auto* self = static_cast<FakeRemote*>(context);
    switch (op & OBJECT_OP_MASK) {
      case OBJECT_OP_RETAIN:
        ++self->retains;
        break;
      case OBJECT_OP_RELEASE:
        ++self->releases;
        break;
      default:
        ++self->other_calls;
    }
    return 0;
  }
};

// One call of a response function.
struct Delivery {
  unsigned int id;
  void* remote;
  std::thread::id thread;
  int releases_during_call;  // the remote must still be held while the call runs
};

class DeliveryLog {
 public:
  VelaDispatcher::ResponseCallback Callback() {
    return [this](ky_loc_fw::VELAResponse* response, Object remote) {
      const int releases = static_cast<FakeRemote*>(remote.context)->releases.load();
      std::lock_guard<std::mutex> lock(mutex_);
      deliveries_.push_back(
          Delivery{response->getRequestId(), remote.context, std::this_thread::get_id(), releases});
    };
  }

  std::vector<Delivery> All() {
    std::lock_guard<std::mutex> lock(mutex_);
    return deliveries_;
  }

  int CountFor(unsigned int id) {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(std::count_if(deliveries_.begin(), deliveries_.end(),
                                          [id](const Delivery& d) { return d.id == id; }));
  }

 private:
  std::mutex mutex_;
  std::vector<Delivery> deliveries_;
};

// Lines of the tag "tesk" as "L text" (L one of E W I D).
class LogCapture {
 public:
  LogCapture() {
    ky_loc_fw::log_set_local_level_for_tag("tesk", 2);
    ky_loc_fw::log_set_sink(&LogCapture::Sink, this, true);
  }
  ~LogCapture() { ky_loc_fw::log_set_sink(nullptr, nullptr, false); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> Lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  int Count(const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(std::count(lines_.begin(), lines_.end(), line));
  }

 private:
  static void Sink(void* context, char letter, const char* tag, const char* text) {
    if (std::string(tag) != "tesk") return;
    auto* self = static_cast<LogCapture*>(context);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.push_back(std::string(1, letter) + " " + text);
  }

  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// The expected line: "%d" in format replaced by id as the daemon prints it.
inline std::string Line(const std::string& format, unsigned int id) {
  const std::size_t at = format.find("%d");
  return format.substr(0, at) + std::to_string(static_cast<int>(id)) + format.substr(at + 2);
}

inline unsigned int NextId() {
  return ++VelaDispatcher::Get().next_request_id;
}

// A request as a scan object would build it; the caller deletes it after
// SendRequest, whatever the result.
inline std::unique_ptr<ky_loc_fw::VELARequest> NewRequest(unsigned int id) {
  ky_loc_fw::vector<ky_loc_fw::VELANodeInfo> nodes;
  return std::make_unique<ky_loc_fw::VELARangingScanRequest>(id, nodes, 0L);
}

inline int32_t Send(unsigned int id, DeliveryLog& log, FakeRemote& remote, Object* handle) {
  std::unique_ptr<ky_loc_fw::VELARequest> request = NewRequest(id);
  return VelaDispatcher::Get().SendRequest(request.get(), log.Callback(), remote.object(), handle);
}

inline int32_t Call(const Object& handle, uint32_t op) {
  return handle.invoke(handle.context, op, nullptr, 0);
}

}  // namespace dispatch_test

#endif  // TESK_TESTS_DISPATCH_DISPATCH_FAKES_H_
