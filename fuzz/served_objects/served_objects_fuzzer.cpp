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

#include "deauth/deauth_monitor.h"
#include "fuzz/support/served_call.h"
#include "service/root_object.h"

namespace {

struct Held {
  Object object;
  uint32_t refs;
};

using HeldMap = std::map<uint32_t, Held>;

// Drops n references; an object whose last one went may be gone.
void Drop(HeldMap& held, HeldMap::iterator it, uint32_t n) {
  for (uint32_t k = 0; k < n && k < it->second.refs; ++k) ObjectRelease(it->second.object);
  if (n < it->second.refs) {
    it->second.refs -= n;
  } else {
    held.erase(it);
  }
}

// The object a frame names; an unknown handle picks one of those held.
HeldMap::iterator Find(HeldMap& held, uint32_t handle) {
  auto it = held.find(handle);
  return it != held.end() ? it : std::next(held.begin(), handle % held.size());
}

void Keep(HeldMap& held, Object o) {
  uint32_t handle = 0;
  while (held.count(handle) != 0) ++handle;
  held.emplace(handle, Held{o, 1});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = (fuzz_support::UseInstantService(), true);
  (void)ready;
  fuzz_support::CountingCallback callback;
  HeldMap held{{0, Held{Object{root_invoke, nullptr}, 1}}};
  size_t at = 0;
  fuzz_support::PeerFrame frame;
  for (int n = 0; n < 64 && !held.empty() && fuzz_support::PeerFrame::Next(data, size, &at, &frame);
       ++n) {
    const auto target = Find(held, frame.handle);
    if (frame.type == 1) {
      fuzz_support::CallArgs args(frame.counts);
      frame.FillArgs(&args, callback.object());
      // Retain and release sent as calls are the peer's own business here
      // too: their effect on the object is mirrored, not prevented.
      const uint32_t op = frame.code & OBJECT_OP_MASK;
      if (op == OBJECT_OP_RELEASE) {
        Drop(held, target, 1);
      } else {
        args.Invoke(target->second.object, frame.code);
        if (op == OBJECT_OP_RETAIN) ++target->second.refs;
      }
      fuzz_support::SettleService();
      for (unsigned i = 0; i < args.out_objs(); ++i) {
        if (!IsNullObject(args.Output(i))) Keep(held, args.Output(i));
      }
    } else if (frame.type == 3) {
      Drop(held, target, frame.code);
    } else {
      DeauthMonitor::Get().OnDeauth(static_cast<int>(frame.handle), static_cast<int>(frame.code),
                                    static_cast<uint16_t>(frame.counts), frame.body_size != 0);
    }
  }
  while (!held.empty()) Drop(held, held.begin(), held.begin()->second.refs);
  fuzz_support::SettleService();
  callback.CheckBalanced();
  return 0;
}
