#include "tests/soak/counting_callback.h"

#include <thread>

namespace tesk_soak {
namespace {

std::mutex silent_mutex;
std::condition_variable silent_changed;
bool silent_released = false;

}  // namespace

void CountingCallback::ReleaseSilent() {
  std::lock_guard<std::mutex> lock(silent_mutex);
  silent_released = true;
  silent_changed.notify_all();
}

int32_t CountingCallback::Invoke(void* context, uint32_t op, ObjectArg*, uint32_t) {
  auto* self = static_cast<CountingCallback*>(context);
  switch (op & OBJECT_OP_MASK) {
    case OBJECT_OP_RETAIN:
      ++self->retains_;
      break;
    case OBJECT_OP_RELEASE:
      ++self->releases_;
      break;
    case OBJECT_OP_METHOD:
      if (self->delay_ms_ < 0) {
        std::unique_lock<std::mutex> lock(silent_mutex);
        silent_changed.wait(lock, [] { return silent_released; });
      } else if (self->delay_ms_ > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(self->delay_ms_));
      }
      ++self->deliveries_;
      break;
    default:
      return OBJECT_ERROR_INVALID;
  }
  std::lock_guard<std::mutex> lock(self->mutex_);
  self->changed_.notify_all();
  return OBJECT_OK;
}

bool CountingCallback::WaitForDelivery(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [this] { return deliveries_ > 0; });
}

bool CountingCallback::WaitForBalance(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [this] { return retains_ == releases_; });
}

}  // namespace tesk_soak
