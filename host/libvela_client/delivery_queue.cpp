#include "delivery_queue.h"

#include <pthread.h>

#include <system_error>

#include "ky_loc_fw/log.h"

namespace ky_loc_fw {
namespace vela_sim {

std::shared_ptr<DeliveryQueue> DeliveryQueue::Start(VELAClientListener* listener) {
  std::shared_ptr<DeliveryQueue> queue(new DeliveryQueue(listener));
  std::lock_guard<std::mutex> lock(queue->mutex_);
  try {
    queue->thread_ = std::thread([keep = queue] {
      pthread_setname_np(pthread_self(), "vela:delivery");  // for ps -T and profiles
      // Woken, it lets the running thread go on instead of preempting it: an
      // answer due at once then comes after the sendRequest that made it, as
      // a real service's would, not while the caller may still hold the lock
      // that responseReceived takes.
      sched_param batch{};
      pthread_setschedparam(pthread_self(), SCHED_BATCH, &batch);
      keep->Run();
    });
  } catch (const std::system_error& e) {
    log_error("vela", "cannot start the delivery thread: %s\n", e.what());
    return nullptr;
  }
  queue->thread_id_ = queue->thread_.get_id();
  return queue;
}

DeliveryQueue::DeliveryQueue(VELAClientListener* listener) : listener_(listener) {}

DeliveryQueue::~DeliveryQueue() {
  // Only the thread's own reference can be the last one once Stop ran; it
  // was detached or joined there.
  if (thread_.joinable()) thread_.detach();
}

void DeliveryQueue::Stop() {
  std::map<Key, std::unique_ptr<VELAResponse>> dropped;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return;
    stopping_ = true;
    dropped.swap(scheduled_);
  }
  changed_.notify_all();
  if (OnDeliveryThread()) {
    thread_.detach();
  } else if (thread_.joinable()) {
    thread_.join();
  }
}

uint64_t DeliveryQueue::Schedule(std::unique_ptr<VELAResponse> response, Clock::time_point due) {
  uint64_t seq;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return 0;
    seq = next_seq_++;
    scheduled_.emplace(Key(due, seq), std::move(response));
  }
  changed_.notify_all();
  return seq;
}

void DeliveryQueue::WaitStarted(uint64_t seq) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [&] {
    if (stopping_) return true;
    for (const auto& item : scheduled_) {
      if (item.first.second == seq) return false;
    }
    return true;
  });
}

void DeliveryQueue::WaitFinished(uint64_t seq) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [&] {
    if (stopping_) return true;
    if (running_ == seq) return false;
    for (const auto& item : scheduled_) {
      if (item.first.second == seq) return false;
    }
    return true;
  });
}

void DeliveryQueue::WaitIdle() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [&] { return stopping_ || (scheduled_.empty() && running_ == 0); });
}

bool DeliveryQueue::OnDeliveryThread() const {
  return std::this_thread::get_id() == thread_id_;
}

void DeliveryQueue::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_) {
    if (scheduled_.empty()) {
      changed_.wait(lock);
      continue;
    }
    const auto first = scheduled_.begin();
    if (first->first.first > Clock::now()) {
      changed_.wait_until(lock, first->first.first);
      continue;
    }
    running_ = first->first.second;
    std::unique_ptr<VELAResponse> response = std::move(first->second);
    scheduled_.erase(first);
    lock.unlock();
    changed_.notify_all();
    listener_->responseReceived(response.get());
    response.reset();  // the listener only borrowed it
    lock.lock();
    running_ = 0;
    changed_.notify_all();
  }
}

}  // namespace vela_sim
}  // namespace ky_loc_fw
