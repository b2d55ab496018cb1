// The client's delivery thread and the responses scheduled on it. Each
// response is handed to the listener at its due time (in due-time order,
// then in the order scheduled) and deleted when the listener returns.
#ifndef VELA_CLIENT_DELIVERY_QUEUE_H_
#define VELA_CLIENT_DELIVERY_QUEUE_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "ky_loc_fw/vela_client.h"

namespace ky_loc_fw {
namespace vela_sim {

class DeliveryQueue {
 public:
  using Clock = std::chrono::steady_clock;

  // Starts the thread; null when it cannot be started. The thread keeps the
  // queue alive until it ends, so a waiter never outlives its queue.
  static std::shared_ptr<DeliveryQueue> Start(VELAClientListener* listener);

  DeliveryQueue(const DeliveryQueue&) = delete;
  DeliveryQueue& operator=(const DeliveryQueue&) = delete;
  ~DeliveryQueue();

  // Ends the thread after the delivery running now, if any; deletes what is
  // still scheduled. Waits for the thread unless called on it.
  void Stop();

  // Schedules response (null allowed) for due; returns its sequence number,
  // or 0 when stopped (the response is then deleted).
  uint64_t Schedule(std::unique_ptr<VELAResponse> response, Clock::time_point due);

  // Block until the listener has been called with seq (or the queue
  // stopped); WaitFinished also until that call has returned.
  void WaitStarted(uint64_t seq);
  void WaitFinished(uint64_t seq);
  // Until nothing is scheduled and no delivery runs (or the queue stopped).
  void WaitIdle();

  bool OnDeliveryThread() const;

 private:
  explicit DeliveryQueue(VELAClientListener* listener);
  void Run();

  using Key = std::pair<Clock::time_point, uint64_t>;

  VELAClientListener* const listener_;
  std::thread thread_;
  std::thread::id thread_id_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::map<Key, std::unique_ptr<VELAResponse>> scheduled_;
  uint64_t next_seq_ = 1;
  uint64_t running_ = 0;  // sequence number being delivered, 0 when none
  bool stopping_ = false;
};

}  // namespace vela_sim
}  // namespace ky_loc_fw

#endif  // VELA_CLIENT_DELIVERY_QUEUE_H_
