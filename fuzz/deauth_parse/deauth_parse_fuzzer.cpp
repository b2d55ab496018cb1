// Feeds arbitrary datagrams to the controller-reply walk and to the event
// path of the listener, exactly as received from the socket.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "deauth/deauth_detector.h"
#include "ky_loc_fw/log.h"

namespace {

class ParseOnlyDetector : public DeauthDetector {
 public:
  void OnDeauth(int wiphy, int ifindex, int reason, bool by_ap) override {
    sink_ ^= wiphy ^ ifindex ^ reason ^ static_cast<int>(by_ap);
  }

  void Feed(const uint8_t* datagram, size_t n) {
    bool found_family = false;
    bool found_group = false;
    ReadFamilyReply(datagram, n, "mlme", found_family, found_group);
    // Take the datagram's own type as the family so that every input can
    // reach the attribute walk of a disconnect event.
    if (n >= 6) memcpy(&family_id, datagram + 4, sizeof family_id);
    HandleDatagram(datagram, n);
  }

 private:
  int sink_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    ky_loc_fw::log_set_local_level_for_tag("tesk", 0);
    return true;
  }();
  (void)quiet;
  if (size > 4096) return 0;  // one receive never holds more
  // An exact-size heap copy, so that any read past the datagram is caught.
  uint8_t* datagram = static_cast<uint8_t*>(malloc(size == 0 ? 1 : size));
  if (size > 0) memcpy(datagram, data, size);
  ParseOnlyDetector detector;
  detector.Feed(datagram, size);
  free(datagram);
  return 0;
}
