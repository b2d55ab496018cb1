#include "control_seam.h"

#include <atomic>

namespace ky_loc_fw {
namespace vela_sim {

namespace {
std::atomic<ControlObserver*> g_observer{nullptr};
}  // namespace

void SetControlObserver(ControlObserver* observer) {
  g_observer.store(observer, std::memory_order_release);
}

ControlObserver* GetControlObserver() {
  return g_observer.load(std::memory_order_acquire);
}

}  // namespace vela_sim
}  // namespace ky_loc_fw
