// A scan request as a peer sends it: one invoke frame (its op, counts word,
// buffers and object references), read leniently. Both scan objects decode
// it; every request started is answered before its handle is dropped, and
// the client's callback must end with its references balanced.
#include <cstddef>
#include <cstdint>

#include "fuzz/support/served_call.h"
#include "scan/discovery_scan.h"
#include "scan/ranging_scan.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = (fuzz_support::UseInstantService(), true);
  (void)ready;
  size_t at = 0;
  fuzz_support::CountingCallback callback;
  fuzz_support::PeerFrame frame;
  if (!frame.Read(data, size, &at, callback.object())) return 0;
  for (const Object& scan : {CreateVelaDiscoveryScan(), CreateVelaRangingScan()}) {
    frame.Invoke(scan, frame.code);
    fuzz_support::SettleService();
    for (unsigned i = 0; i < frame.out_objs(); ++i) ObjectRelease(frame.Output(i));
  }
  callback.CheckBalanced();
  return 0;
}
