// The simulated location service of this process on a scenario, asked for
// fresh scans of every band, hidden access points too: its answers are built
// and held by the test control, never delivered. The test control is the
// process's, so one at a time.
#ifndef TESK_BENCHMARKS_SUPPORT_HELD_SCANS_H_
#define TESK_BENCHMARKS_SUPPORT_HELD_SCANS_H_

#include <memory>
#include <string>
#include <vector>

#include "ky_loc_fw/vela_client.h"
#include "ky_loc_fw/vela_response.h"

namespace bench {

class HeldScans {
 public:
  explicit HeldScans(const std::string& scenario);
  ~HeldScans();  // drops what is held
  HeldScans(const HeldScans&) = delete;
  HeldScans& operator=(const HeldScans&) = delete;

  // Sends the next request; ns that sendRequest took (the service builds its
  // answer inside it), or -1 when there is no client or it refused.
  double Send();
  // The answers held since the last Take or Drop, in the order made.
  std::vector<std::unique_ptr<ky_loc_fw::VELAResponse>> Take();
  // Deletes them.
  void Drop();

 private:
  struct NullListener : ky_loc_fw::VELAClientListener {
    void responseReceived(ky_loc_fw::VELAResponse*) override {}
  } listener_;
  std::unique_ptr<ky_loc_fw::VELAClient> client_;
  unsigned id_ = 0;
};

}  // namespace bench

#endif  // TESK_BENCHMARKS_SUPPORT_HELD_SCANS_H_
