#include "deauth/deauth_monitor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <thread>
#include <vector>

#include <tesk/deauth_event.h>
#include <tesk/interfaces.h>

#include "deauth/deauth_monitor_object.h"

namespace {

// A callback object that counts what is done with it. A delivery that is
// not one 16-byte buffer, or comes while no reference is held, is bad.
struct FakeCallback {
  Object object() { return Object{&FakeCallback::Invoke, this}; }
  static int32_t Invoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts) {
    auto* self = static_cast<FakeCallback*>(context);
    if (op == OBJECT_OP_RETAIN || op == OBJECT_OP_RELEASE) {
      ++(op == OBJECT_OP_RETAIN ? self->retains : self->releases);
      return 0;
    }
    ++self->deliveries;
    self->bad_deliveries += op != OBJECT_OP_METHOD || counts != kDeauthEventCounts ||
                            args[0].b.size != sizeof(DeauthEvent) ||
                            self->retains <= self->releases;
    return 0;
  }
  std::atomic<int> retains{0}, releases{0}, deliveries{0}, bad_deliveries{0};
};

Object Register(Object callback) {
  ObjectArg args[2];
  args[0].o = callback;
  EXPECT_EQ(deauth_monitor_invoke(nullptr, 0, args, kDeauthRegisterCounts), 0);
  return args[1].o;
}

// Registrations and releases (some tokens retained once more) race
// deliveries. Every callback must end retained and released exactly once,
// never be called outside its registration, and one registered throughout
// must see every event. A null callback, which a peer can send, is
// registered too but never called.
TEST(DeauthMonitorTest, RegistrationsAndReleasesRaceDeliveries) {
  constexpr int kRegistrars = 3, kPerRegistrar = 150;
  FakeCallback steady;
  const Object steady_token = Register(steady.object()), null_token = Register(kNullObject);
  std::vector<FakeCallback> callbacks(kRegistrars * kPerRegistrar);
  std::atomic<int> registrars_left{kRegistrars}, events{0};

  std::vector<std::thread> threads;
  for (int r = 0; r < kRegistrars; ++r) {
    threads.emplace_back([&, r] {
      std::deque<Object> held;  // a token per reference, released a few registrations later
      while (events == 0) std::this_thread::yield();  // start once deliveries run
      for (int i = 0; i < kPerRegistrar; ++i) {
        const Object token = Register(callbacks[size_t(r * kPerRegistrar + i)].object());
        if (i % 3 == 0) ObjectRetain(token);
        held.insert(held.end(), i % 3 == 0 ? 2 : 1, token);
        for (; held.size() > (i + 1 < kPerRegistrar ? 4u : 0u); held.pop_front()) {
          ObjectRelease(held.front());
        }
      }
      --registrars_left;
    });
  }
  for (int d = 0; d < 2; ++d) {
    threads.emplace_back([&] {
      for (; registrars_left > 0; ++events) DeauthMonitor::Get().OnDeauth(2, 5, 7, true);
    });
  }
  for (std::thread& t : threads) t.join();

  for (const FakeCallback& callback : callbacks) {
    EXPECT_EQ(callback.retains, 1);
    EXPECT_EQ(callback.releases, 1);
    EXPECT_EQ(callback.bad_deliveries, 0);
  }
  EXPECT_EQ(steady.deliveries, events);
  EXPECT_EQ(steady.bad_deliveries, 0);
  ObjectRelease(steady_token);
  EXPECT_EQ(steady.releases, 1);
  ObjectRelease(null_token);
}

}  // namespace
