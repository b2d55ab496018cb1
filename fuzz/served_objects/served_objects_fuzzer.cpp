// A peer's whole session with the served objects, as the frames it sends:
// an invoke calls the object its handle names (the root is 0; each object
// handed out takes the lowest free handle, as the IPC library numbers them:
// scan objects, request handles, the deauth monitor and its tokens) with the
// frame's op, counts word, buffers and callbacks, however wrong; a release
// drops references; any other frame delivers a disconnect event. At the end
// every reference still held is dropped, and the callback must have been
// released as often as it was retained.
#include <cstdint>
#include <iterator>
#include <map>
#include <utility>

#include "deauth/deauth_monitor.h"
#include "fuzz/support/served_call.h"
#include "service/root_object.h"

namespace {

using HeldMap = std::map<uint32_t, std::pair<Object, uint32_t>>;  // handle: object, references

// Drops n references; an object whose last one went may be gone.
void Drop(HeldMap& held, HeldMap::iterator it, uint32_t n) {
  auto& [object, refs] = it->second;
  for (uint32_t k = 0; k < n && k < refs; ++k) ObjectRelease(object);
  if (n < refs) {
    refs -= n;
  } else {
    held.erase(it);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = (fuzz_support::UseInstantService(), true);
  (void)ready;
  fuzz_support::CountingCallback callback;
  HeldMap held{{0, {Object{root_invoke, nullptr}, 1}}};
  size_t at = 0;
  fuzz_support::PeerFrame frame;
  for (int n = 0; n < 64 && !held.empty() && frame.Read(data, size, &at, callback.object()); ++n) {
    // An unknown handle picks one of those held.
    auto target = held.find(frame.handle);
    if (target == held.end()) target = std::next(held.begin(), frame.handle % held.size());
    if (frame.type == 1) {
      // Retain and release sent as calls are the peer's own business here
      // too: their effect on the object is mirrored, not prevented.
      const uint32_t op = frame.code & OBJECT_OP_MASK;
      if (op == OBJECT_OP_RELEASE) {
        Drop(held, target, 1);
      } else {
        frame.Invoke(target->second.first, frame.code);
        target->second.second += op == OBJECT_OP_RETAIN;
      }
      fuzz_support::SettleService();
      for (unsigned i = 0; i < frame.out_objs(); ++i) {
        if (IsNullObject(frame.Output(i))) continue;
        uint32_t handle = 0;
        while (held.count(handle) != 0) ++handle;
        held.emplace(handle, std::make_pair(frame.Output(i), 1u));
      }
    } else if (frame.type == 3) {
      Drop(held, target, frame.code);
    } else {
      DeauthMonitor::Get().OnDeauth(static_cast<int>(frame.handle), static_cast<int>(frame.code),
                                    static_cast<uint16_t>(frame.counts), frame.body_size != 0);
    }
  }
  while (!held.empty()) Drop(held, held.begin(), held.begin()->second.second);
  fuzz_support::SettleService();
  callback.CheckBalanced();
  return 0;
}
