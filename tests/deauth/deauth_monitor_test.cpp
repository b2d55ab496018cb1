#include "deauth/deauth_monitor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <thread>
#include <vector>

#include "deauth/deauth_monitor_object.h"
#include "tests/deauth/test_support.h"

namespace {

using deauth_test::FakeCallback;

constexpr uint32_t kRegister = kDeauthRegisterCounts;

Object Register(Object callback) {
  ObjectArg args[2];
  args[0].o = callback;
  args[1].o = kNullObject;
  EXPECT_EQ(deauth_monitor_invoke(nullptr, 0, args, kRegister), 0);
  return args[1].o;
}

int32_t Call(const Object& o, uint32_t op) {
  return o.invoke(o.context, op, nullptr, 0);
}

void Deliver() {
  DeauthMonitor::Get().OnDeauth(2, 5, 7, true);
}

// Only op 0 with one object in and one out registers. Retained twice more,
// the token ends the registration on its third release and releases the
// callback then, once.
TEST(DeauthMonitorTest, TokenHoldsTheRegistrationUntilItsLastRelease) {
  FakeCallback callback;
  ObjectArg args[2];
  args[0].o = callback.object();
  args[1].o = kNullObject;
  EXPECT_EQ(deauth_monitor_invoke(nullptr, 1, args, kRegister), 2);
  EXPECT_EQ(deauth_monitor_invoke(nullptr, 0, args, OBJECT_COUNTS(0, 0, 1, 0)), 2);
  const Object token = Register(callback.object());
  EXPECT_EQ(callback.retains, 1) << "registered once, by the valid call alone";
  EXPECT_EQ(Call(token, 0), 2) << "the token has no method";
  EXPECT_EQ(Call(token, 0xFFFE), 0);
  EXPECT_EQ(Call(token, 0x1FFFE), 0);  // only the low 16 bits count
  for (int release = 1; release <= 3; ++release) {
    Deliver();
    EXPECT_EQ(callback.releases, 0);
    EXPECT_EQ(Call(token, release == 3 ? 0x2FFFF : 0xFFFF), 0);
  }
  Deliver();
  EXPECT_EQ(callback.releases, 1);
  EXPECT_EQ(callback.deliveries, 3);
  EXPECT_EQ(callback.bad_deliveries, 0);
}

TEST(DeauthMonitorTest, NullCallbackIsRegisteredButNeverCalled) {
  // A peer can send the null object; it must not take the daemon down.
  FakeCallback healthy;
  const Object null_token = Register(kNullObject);
  const Object healthy_token = Register(healthy.object());
  Deliver();
  EXPECT_EQ(healthy.deliveries, 1);
  EXPECT_EQ(Call(null_token, 0xFFFF), 0);
  Call(healthy_token, 0xFFFF);
  EXPECT_EQ(healthy.releases, 1);
}

// Registrations and releases race deliveries. Every callback must end
// retained and released exactly once, never be called outside its
// registration, and those registered throughout must each see every event.
TEST(DeauthMonitorConcurrencyTest, RegistrationsAndReleasesRaceDeliveries) {
  constexpr int kRegistrars = 3, kPerRegistrar = 150;
  FakeCallback steady[3];
  Object steady_tokens[3];
  for (int i = 0; i < 3; ++i) steady_tokens[i] = Register(steady[i].object());
  std::vector<FakeCallback> callbacks(kRegistrars * kPerRegistrar);
  std::atomic<int> registrars_left{kRegistrars};
  std::atomic<int> events{0};

  std::vector<std::thread> threads;
  for (int r = 0; r < kRegistrars; ++r) {
    threads.emplace_back([&, r] {
      std::deque<Object> held;  // a token per reference, released a few registrations later
      while (events == 0) std::this_thread::yield();  // start once deliveries run
      for (int i = 0; i < kPerRegistrar; ++i) {
        const Object token =
            Register(callbacks[static_cast<size_t>(r * kPerRegistrar + i)].object());
        if (i % 3 == 0) Call(token, 0xFFFE);
        held.insert(held.end(), i % 3 == 0 ? 2 : 1, token);
        while (held.size() > (i + 1 < kPerRegistrar ? 4u : 0u)) {
          Call(held.front(), 0xFFFF);
          held.pop_front();
        }
      }
      --registrars_left;
    });
  }
  for (int d = 0; d < 2; ++d) {
    threads.emplace_back([&] {
      while (registrars_left > 0) {
        Deliver();
        ++events;
      }
    });
  }
  for (std::thread& t : threads) t.join();

  for (const FakeCallback& callback : callbacks) {
    EXPECT_EQ(callback.retains, 1);
    EXPECT_EQ(callback.releases, 1);
    EXPECT_EQ(callback.bad_deliveries, 0);
  }
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(steady[i].deliveries, events);
    EXPECT_EQ(steady[i].bad_deliveries, 0);
    Call(steady_tokens[i], 0xFFFF);
    EXPECT_EQ(steady[i].releases, 1);
  }
}

}  // namespace
