#include "deauth/deauth_monitor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "deauth/deauth_monitor_object.h"
#include "tests/deauth/kernel_message.h"
#include "tests/deauth/test_support.h"

namespace {

using deauth_test::DatagramPair;
using deauth_test::EventRecorder;
using deauth_test::FakeCallback;

constexpr uint32_t kRegisterCounts = 0x1100;

Object Register(Object callback) {
  ObjectArg args[2];
  args[0].o = callback;
  args[1].o = kNullObject;
  EXPECT_EQ(deauth_monitor_invoke(nullptr, 0, args, kRegisterCounts), 0);
  return args[1].o;
}

int32_t Call(const Object& o, uint32_t op) {
  return o.invoke(o.context, op, nullptr, 0);
}

TEST(DeauthMonitorTest, ServiceObjectRejectsAllButRegistration) {
  const Object service = CreateDeauthMonitor();
  EXPECT_EQ(service.invoke, &deauth_monitor_invoke);
  EXPECT_EQ(service.context, nullptr);

  struct Case {
    uint32_t op;
    uint32_t counts;
    int32_t result;
  };
  const Case cases[] = {
      {0, 0x1001, 2},          {0, 0x1000, 2},
      {0, 0x0100, 2},          {0, 0x1101, 2},
      {1, kRegisterCounts, 2}, {0x10001, kRegisterCounts, 2},
      {0xFFFE, 0, 0},          {0xFFFF, 0, 0},
      {0x1FFFE, 0, 0},         {0x2FFFF, kRegisterCounts, 0},
  };
  FakeCallback callback;
  const Object untouched{&MonitorTokenInvoke, &callback};
  for (const Case& c : cases) {
    ObjectArg args[2];
    args[0].o = callback.object();
    args[1].o = untouched;
    EXPECT_EQ(service.invoke(service.context, c.op, args, c.counts), c.result)
        << "op " << c.op << " counts " << c.counts;
    EXPECT_EQ(args[1].o.context, untouched.context);
  }
  DeauthMonitor::Get().OnDeauth(1, 2, 3, false);
  EXPECT_EQ(callback.retains, 0);
  EXPECT_EQ(callback.deliveries, 0);
}

TEST(DeauthMonitorTest, DeliversRecordsUntilTheTokenIsReleased) {
  EventRecorder recorder;
  FakeCallback callback(&recorder);
  const Object token = Register(callback.object());
  EXPECT_EQ(token.invoke, &MonitorTokenInvoke);
  EXPECT_EQ(callback.retains, 1);

  DeauthMonitor::Get().OnDeauth(2, 5, 7, true);
  DeauthMonitor::Get().OnDeauth(0, 0, 0, false);
  EXPECT_EQ(Call(token, 0xFFFF), 0);
  DeauthMonitor::Get().OnDeauth(3, 3, 3, true);

  EXPECT_EQ(recorder.WaitFor(2), (std::vector<DeauthEvent>{{2, 5, 7, 1}, {0, 0, 0, 0}}));
  EXPECT_EQ(callback.deliveries, 2);
  EXPECT_EQ(callback.releases, 1);
  EXPECT_EQ(callback.bad_deliveries, 0);
}

TEST(DeauthMonitorTest, SameCallbackTwiceIsTwoRegistrations) {
  FakeCallback callback;
  const Object first = Register(callback.object());
  const Object second = Register(callback.object());
  EXPECT_NE(first.context, second.context);

  DeauthMonitor::Get().OnDeauth(1, 1, 1, false);
  EXPECT_EQ(callback.deliveries, 2);
  Call(first, 0xFFFF);
  DeauthMonitor::Get().OnDeauth(1, 1, 1, false);
  EXPECT_EQ(callback.deliveries, 3);
  EXPECT_EQ(callback.releases, 1);
  Call(second, 0xFFFF);
  EXPECT_EQ(callback.retains, 2);
  EXPECT_EQ(callback.releases, 2);
}

TEST(DeauthMonitorTest, TokenCountsReferences) {
  FakeCallback callback;
  const Object token = Register(callback.object());
  EXPECT_EQ(Call(token, 0), 2) << "the token has no method";
  EXPECT_EQ(Call(token, 1), 2);
  EXPECT_EQ(Call(token, 0xFFFE), 0);
  EXPECT_EQ(Call(token, 0x1FFFE), 0);  // only the low 16 bits count

  for (int release = 1; release <= 3; ++release) {
    DeauthMonitor::Get().OnDeauth(0, 0, 0, false);
    EXPECT_EQ(callback.deliveries, release) << "still registered before release " << release;
    EXPECT_EQ(callback.releases, 0);
    EXPECT_EQ(Call(token, release == 3 ? 0x2FFFF : 0xFFFF), 0);
  }
  EXPECT_EQ(callback.releases, 1);
  DeauthMonitor::Get().OnDeauth(0, 0, 0, false);
  EXPECT_EQ(callback.deliveries, 3);
}

TEST(DeauthMonitorTest, NullCallbackIsRegisteredButNeverCalled) {
  // A peer can send the null object; it must not take the daemon down.
  FakeCallback healthy;
  const Object null_token = Register(kNullObject);
  const Object healthy_token = Register(healthy.object());
  EXPECT_EQ(null_token.invoke, &MonitorTokenInvoke);
  DeauthMonitor::Get().OnDeauth(1, 2, 3, true);
  EXPECT_EQ(healthy.deliveries, 1);
  EXPECT_EQ(Call(null_token, 0xFFFF), 0);
  Call(healthy_token, 0xFFFF);
  EXPECT_EQ(healthy.releases, 1);
}

TEST(DeauthMonitorTest, FailingCallbackKeepsReceiving) {
  FakeCallback failing(nullptr, 5);
  FakeCallback healthy;
  const Object failing_token = Register(failing.object());
  const Object healthy_token = Register(healthy.object());
  for (int i = 0; i < 3; ++i) DeauthMonitor::Get().OnDeauth(i, i, i, false);
  EXPECT_EQ(failing.deliveries, 3);
  EXPECT_EQ(healthy.deliveries, 3);
  Call(failing_token, 0xFFFF);
  Call(healthy_token, 0xFFFF);
}

TEST(DeauthMonitorTest, KernelEventReachesCallbacksThroughTheListener) {
  // The singleton listens once per process, here on a pair standing in for
  // the kernel's socket.
  static DatagramPair kernel;
  static const bool listening =
      DeauthMonitor::Get().StartListenerForTesting(kernel.TakeFirst(), deauth_test::kNl80211Family);
  ASSERT_TRUE(listening);
  EventRecorder recorder;
  FakeCallback callback(&recorder);
  const Object token = Register(callback.object());
  ASSERT_TRUE(kernel.Send(deauth_test::DisconnectEvent(0, 7, 3, true, "\xdd\x00")));
  EXPECT_EQ(recorder.WaitFor(1), (std::vector<DeauthEvent>{{0, 7, 3, 1}}));
  Call(token, 0xFFFF);
  EXPECT_EQ(callback.releases, 1);
}

// Registrations and releases from several threads race deliveries from
// others. Every callback must end retained and released exactly once per
// registration, never be called outside its registration, and a callback
// registered throughout must see every event.
TEST(DeauthMonitorConcurrencyTest, RegistrationsAndReleasesRaceDeliveries) {
  constexpr int kRegistrars = 3;
  constexpr int kPerRegistrar = 150;
  constexpr int kDeliverers = 2;

  FakeCallback steady;
  const Object steady_token = Register(steady.object());

  std::vector<std::unique_ptr<FakeCallback>> callbacks;
  for (int i = 0; i < kRegistrars * kPerRegistrar; ++i) {
    callbacks.push_back(std::make_unique<FakeCallback>());
  }

  std::mutex queue_mutex;
  std::deque<Object> tokens;  // released by another thread than their registrar
  std::atomic<int> registrars_left{kRegistrars};
  std::atomic<int> events{0};

  std::vector<std::thread> threads;
  for (int r = 0; r < kRegistrars; ++r) {
    threads.emplace_back([&, r] {
      for (int i = 0; i < kPerRegistrar; ++i) {
        FakeCallback& callback = *callbacks[static_cast<size_t>(r * kPerRegistrar + i)];
        const Object token = Register(callback.object());
        if (i % 3 == 0) {
          Call(token, 0xFFFE);  // two references, both dropped below
          std::lock_guard<std::mutex> lock(queue_mutex);
          tokens.push_back(token);
        }
        std::lock_guard<std::mutex> lock(queue_mutex);
        tokens.push_back(token);
      }
      --registrars_left;
    });
  }
  threads.emplace_back([&] {
    for (;;) {
      Object token = kNullObject;
      {
        std::lock_guard<std::mutex> lock(queue_mutex);
        if (!tokens.empty()) {
          token = tokens.front();
          tokens.pop_front();
        }
      }
      if (!IsNullObject(token)) {
        Call(token, 0xFFFF);
      } else if (registrars_left.load() == 0) {
        std::lock_guard<std::mutex> lock(queue_mutex);
        if (tokens.empty()) return;
      } else {
        std::this_thread::yield();
      }
    }
  });
  for (int d = 0; d < kDeliverers; ++d) {
    threads.emplace_back([&] {
      while (registrars_left.load() > 0) {
        DeauthMonitor::Get().OnDeauth(1, 2, 3, true);
        ++events;
      }
    });
  }
  for (std::thread& t : threads) t.join();

  for (const auto& callback : callbacks) {
    EXPECT_EQ(callback->retains, 1);
    EXPECT_EQ(callback->releases, 1);
    EXPECT_EQ(callback->bad_deliveries, 0);
  }
  EXPECT_EQ(steady.deliveries, events.load());
  EXPECT_EQ(steady.bad_deliveries, 0);
  Call(steady_token, 0xFFFF);
  EXPECT_EQ(steady.releases, 1);
}

}  // namespace
