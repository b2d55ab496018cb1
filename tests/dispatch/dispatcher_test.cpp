// The dispatcher against the simulated location service, with its answers
// held back so that each test delivers chosen responses at chosen moments.
#include "dispatch/vela_dispatcher.h"

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "dispatch/request_handle.h"
#include "ky_loc_fw/vela_test_control.h"
#include "tests/dispatch/dispatch_fakes.h"

namespace {

namespace vela_test = ky_loc_fw::vela_test;
using dispatch_test::Call;
using dispatch_test::DeliveryLog;
using dispatch_test::FakeRemote;
using dispatch_test::Line;
using dispatch_test::LogCapture;
using dispatch_test::NextId;
using dispatch_test::Send;
using ::testing::Contains;
using ::testing::Not;

constexpr char kReceived[] = "D Dispatcher: responseReceived for ID = %d\n";
constexpr char kUnexpected[] = "W Dispatcher: Unexpected request ID %d\n";
constexpr char kExpectedRelease[] = "D Dispatcher: Expected release for ID %d\n";
constexpr char kAborted[] = "D Dispatcher: Aborted ID %d\n";
constexpr int kRanging = ky_loc_fw::VELAResponse::RESPONSE_TYPE_RANGING_SCAN;

// Creation runs in a fresh process, where the dispatcher does not exist yet.
class DispatcherDeathTest : public ::testing::Test {
 protected:
  void SetUp() override { ::testing::FLAGS_gtest_death_test_style = "threadsafe"; }
};

TEST_F(DispatcherDeathTest, ExitsWhenTheClientCannotBeCreated) {
  EXPECT_EXIT(
      {
        vela_test::SetScenarioText("fault create\n");
        VelaDispatcher::Get();
      },
      ::testing::ExitedWithCode(255), "E tesk: Dispatcher: Could not create the VELAClient");
}

TEST_F(DispatcherDeathTest, LogsItsCreation) {
  EXPECT_EXIT(
      {
        ky_loc_fw::log_set_local_level_for_tag("tesk", 2);
        VelaDispatcher::Get();
        exit(VelaDispatcher::Get().next_request_id.load() == 0 ? 3 : 4);
      },
      ::testing::ExitedWithCode(3), "D tesk: Dispatcher: initialized");
}

class DispatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    VelaDispatcher::Get();
    vela_test::WaitIdle();
    vela_test::Reset();
    vela_test::HoldAnswers(true);
  }
  void TearDown() override {
    vela_test::WaitIdle();
    vela_test::Reset();
  }

  // Answers `id` the way the service would, and waits until it was handled.
  static void Answer(unsigned int id) {
    vela_test::DeliverAndWait(vela_test::MakeResponseOfType(id, kRanging));
  }

  LogCapture log_;
  DeliveryLog deliveries_;
};

TEST_F(DispatcherTest, DeliversOnceThenExpectsTheRelease) {
  FakeRemote remote;
  const unsigned int id = NextId();
  Object handle = kNullObject;
  ASSERT_EQ(Send(id, deliveries_, remote, &handle), 0);
  EXPECT_EQ(handle.invoke, &Invoke);
  EXPECT_EQ(remote.retains, 1);
  ASSERT_EQ(vela_test::SentRequests().size(), 1u);
  EXPECT_EQ(vela_test::SentRequests()[0].requestId, id);

  Answer(id);
  std::vector<dispatch_test::Delivery> all = deliveries_.All();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].id, id);
  EXPECT_EQ(all[0].remote, &remote);
  EXPECT_NE(all[0].thread, std::this_thread::get_id());
  EXPECT_EQ(all[0].releases_during_call, 0);
  EXPECT_EQ(remote.releases, 1);
  EXPECT_EQ(log_.Count(Line(kReceived, id)), 1);

  // A repeated answer finds nothing.
  Answer(id);
  EXPECT_EQ(deliveries_.CountFor(id), 1);
  EXPECT_EQ(log_.Count(Line(kReceived, id)), 2);
  EXPECT_EQ(log_.Count(Line(kUnexpected, id)), 1);

  EXPECT_EQ(Call(handle, OBJECT_OP_RELEASE), 0);
  EXPECT_EQ(log_.Count(Line(kExpectedRelease, id)), 1);
  EXPECT_EQ(remote.releases, 1);
  EXPECT_EQ(remote.retains, 1);
  EXPECT_EQ(remote.other_calls, 0);
}

TEST_F(DispatcherTest, ReleaseBeforeTheAnswerAbandonsTheRequest) {
  FakeRemote remote;
  const unsigned int id = NextId();
  Object handle;
  ASSERT_EQ(Send(id, deliveries_, remote, &handle), 0);

  Call(handle, OBJECT_OP_RELEASE);
  EXPECT_EQ(remote.releases, 1);
  EXPECT_EQ(log_.Count(Line(kAborted, id)), 1);
  EXPECT_THAT(log_.Lines(), Not(Contains(Line(kExpectedRelease, id))));

  // The service still answers; nothing is called.
  EXPECT_EQ(vela_test::ReleaseHeldAnswers(), 1u);
  vela_test::WaitIdle();
  EXPECT_EQ(log_.Count(Line(kUnexpected, id)), 1);
  EXPECT_EQ(deliveries_.CountFor(id), 0);
  EXPECT_EQ(remote.releases, 1);
}

TEST_F(DispatcherTest, NullResponseIsIgnored) {
  vela_test::DeliverAndWait(nullptr);
  EXPECT_EQ(log_.Lines(), std::vector<std::string>{"W Dispatcher: received Null response.\n"});
}

// A failed send stores nothing, retains nothing and leaves the handle alone.
TEST_F(DispatcherTest, FailedSends) {
  FakeRemote first;
  const unsigned int id = NextId();
  Object handle;
  ASSERT_EQ(Send(id, deliveries_, first, &handle), 0);

  FakeRemote duplicate;
  const Object untouched{&FakeRemote::Invoke, &log_};
  Object out = untouched;
  EXPECT_EQ(Send(id, deliveries_, duplicate, &out), -1);
  EXPECT_EQ(vela_test::SentRequests().size(), 1u) << "a duplicate id must not reach the client";

  FakeRemote refused;
  vela_test::SetSendHook(
      [](const vela_test::SentRequest&, vela_test::SendAction* action) { action->result = 1; });
  const unsigned int refused_id = NextId();
  EXPECT_EQ(Send(refused_id, deliveries_, refused, &out), -1);
  EXPECT_EQ(vela_test::SentRequests().size(), 2u);
  vela_test::SetSendHook(nullptr);

  for (FakeRemote* remote : {&duplicate, &refused}) {
    EXPECT_EQ(remote->retains, 0);
    EXPECT_EQ(remote->releases, 0);
  }
  EXPECT_EQ(out.invoke, untouched.invoke);
  EXPECT_EQ(out.context, untouched.context);

  // The first request is still the one pending under its id.
  Answer(id);
  EXPECT_EQ(deliveries_.All().size(), 1u);
  EXPECT_EQ(deliveries_.All()[0].remote, &first);
  // Nothing was kept for the refused one; its id can be sent again.
  Answer(refused_id);
  EXPECT_EQ(log_.Count(Line(kUnexpected, refused_id)), 1);
  Object retry;
  EXPECT_EQ(Send(refused_id, deliveries_, refused, &retry), 0);
  Call(retry, OBJECT_OP_RELEASE);
  Call(handle, OBJECT_OP_RELEASE);
  EXPECT_EQ(refused.retains, 1);
  EXPECT_EQ(refused.releases, 1);
}

TEST_F(DispatcherTest, HandleCountsReferences) {
  FakeRemote remote;
  const unsigned int id = NextId();
  Object handle;
  ASSERT_EQ(Send(id, deliveries_, remote, &handle), 0);

  // Only the low 16 bits of an op count; the handle has no methods.
  for (uint32_t op : {0u, 1u, 0x10000u, 0xFFFDu}) EXPECT_EQ(Call(handle, op), 2) << op;
  EXPECT_EQ(Call(handle, OBJECT_OP_RETAIN), 0);
  EXPECT_EQ(Call(handle, 0x1FFFEu), 0);
  EXPECT_EQ(Call(handle, OBJECT_OP_RELEASE), 0);
  EXPECT_EQ(Call(handle, 0x2FFFFu), 0);
  EXPECT_EQ(remote.releases, 0);
  EXPECT_THAT(log_.Lines(), Not(Contains(Line(kAborted, id))));

  EXPECT_EQ(Call(handle, OBJECT_OP_RELEASE), 0);
  EXPECT_EQ(remote.releases, 1);
  EXPECT_EQ(log_.Count(Line(kAborted, id)), 1);
}

// Called back without the dispatcher's lock, a response function may drop
// the handle of its own request.
TEST_F(DispatcherTest, ResponseFunctionMayReleaseItsHandle) {
  FakeRemote remote;
  const unsigned int id = NextId();
  std::atomic<bool> called{false};
  Object handle;
  {
    std::unique_ptr<ky_loc_fw::VELARequest> request = dispatch_test::NewRequest(id);
    ASSERT_EQ(VelaDispatcher::Get().SendRequest(
                  request.get(),
                  [&handle, &called](ky_loc_fw::VELAResponse*, Object) {
                    Call(handle, OBJECT_OP_RELEASE);
                    called = true;
                  },
                  remote.object(), &handle),
              0);
  }
  Answer(id);
  EXPECT_TRUE(called);
  EXPECT_EQ(log_.Count(Line(kExpectedRelease, id)), 1);
  EXPECT_EQ(remote.releases, 1);
}

TEST_F(DispatcherTest, ResponseBeforeSendRequestReturns) {
  vela_test::SetSendHook([](const vela_test::SentRequest& request, vela_test::SendAction* action) {
    action->automaticAnswer = false;
    action->beforeReturn.push_back(vela_test::MakeResponseOfType(request.requestId, kRanging));
  });
  FakeRemote remote;
  const unsigned int id = NextId();
  Object handle;
  ASSERT_EQ(Send(id, deliveries_, remote, &handle), 0);
  vela_test::WaitIdle();

  EXPECT_EQ(deliveries_.CountFor(id), 1);
  EXPECT_THAT(log_.Lines(), Not(Contains(Line(kUnexpected, id))));
  Call(handle, OBJECT_OP_RELEASE);
  EXPECT_EQ(log_.Count(Line(kExpectedRelease, id)), 1);
  EXPECT_EQ(remote.retains, 1);
  EXPECT_EQ(remote.releases, 1);
}

// Whichever comes first, the remote is released exactly once and the request
// ends either delivered or aborted, never both.
TEST_F(DispatcherTest, ReleaseRacesTheResponse) {
  constexpr int kRounds = 100;
  std::vector<std::unique_ptr<FakeRemote>> remotes;
  std::vector<unsigned int> ids;
  for (int round = 0; round < kRounds; ++round) {
    remotes.push_back(std::make_unique<FakeRemote>());
    const unsigned int id = NextId();
    ids.push_back(id);
    Object handle;
    ASSERT_EQ(Send(id, deliveries_, *remotes.back(), &handle), 0);
    std::thread releaser([handle] { Call(handle, OBJECT_OP_RELEASE); });
    vela_test::ReleaseHeldAnswers();
    releaser.join();
  }
  vela_test::WaitIdle();

  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE(round);
    const unsigned int id = ids[round];
    EXPECT_EQ(remotes[round]->retains, 1);
    EXPECT_EQ(remotes[round]->releases, 1);
    const bool delivered = deliveries_.CountFor(id) == 1;
    const bool aborted = log_.Count(Line(kAborted, id)) == 1;
    EXPECT_NE(delivered, aborted);
    EXPECT_EQ(log_.Count(Line(kExpectedRelease, id)), delivered ? 1 : 0);
    EXPECT_EQ(log_.Count(Line(kUnexpected, id)), aborted ? 1 : 0);
  }
}

TEST_F(DispatcherTest, ManyThreadsSendAtOnce) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 25;
  std::vector<FakeRemote> remotes(kThreads * kPerThread);
  std::vector<Object> handles(remotes.size(), kNullObject);
  std::vector<unsigned int> ids(remotes.size());
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = t * kPerThread; i < (t + 1) * kPerThread; ++i) {
        ids[i] = NextId();
        if (Send(ids[i], deliveries_, remotes[i], &handles[i]) != 0) ++failures;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(std::set<unsigned int>(ids.begin(), ids.end()).size(), remotes.size());

  EXPECT_EQ(vela_test::ReleaseHeldAnswers(), remotes.size());
  vela_test::WaitIdle();
  for (Object& handle : handles) Call(handle, OBJECT_OP_RELEASE);

  for (std::size_t i = 0; i < remotes.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(remotes[i].retains, 1);
    EXPECT_EQ(remotes[i].releases, 1);
    EXPECT_EQ(deliveries_.CountFor(ids[i]), 1);
    EXPECT_EQ(log_.Count(Line(kExpectedRelease, ids[i])), 1);
  }
}

}  // namespace
