// A listener that keeps a summary of every response it is given, so that
// tests can look at answers after the client has deleted them.
#ifndef TESTS_VELA_RECORDING_LISTENER_H_
#define TESTS_VELA_RECORDING_LISTENER_H_

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ky_loc_fw/vela_client.h"

namespace ky_loc_fw {
namespace vela_testing {

struct SeenMeasurement {
  int type = 0;
  uint64_t bssid = 0;
  std::string ssid;  // empty when not valid
  bool ssidValid = false;
  uint32_t frequency = 0;
  uint32_t distanceMm = 0;
  uint8_t channel = 0;
  int32_t rssi = 0;
  uint32_t detailCount = 0;
  uint32_t rawByteCount = 0;
  bool hasElementA = false;
  bool hasElementB = false;
  std::vector<uint64_t> macList;                                   // ranging only
  std::vector<std::pair<uint8_t, std::vector<uint8_t>>> elements;  // full beacon only
};

struct SeenResponse {
  bool isNull = false;
  int type = 0;
  unsigned int id = 0;
  int32_t status = 0;
  uint32_t source = 0;  // discovery only
  std::vector<SeenMeasurement> measurements;
  std::thread::id thread;  // the thread that delivered it
};

uint64_t Mac48(const VELAMacAddress& mac);

class RecordingListener : public VELAClientListener {
 public:
  void responseReceived(VELAResponse* response) override;

  // Blocks until count responses have arrived; returns all seen so far.
  std::vector<SeenResponse> WaitFor(size_t count);
  std::vector<SeenResponse> Seen();

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<SeenResponse> seen_;
};

}  // namespace vela_testing
}  // namespace ky_loc_fw

#endif  // TESTS_VELA_RECORDING_LISTENER_H_
