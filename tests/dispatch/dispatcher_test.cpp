// The dispatcher against the simulated location service and its built-in
// neighbourhood, answers held back so that each test chooses when they come.
#include "dispatch/vela_dispatcher.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ky_loc_fw/log.h"
#include "ky_loc_fw/vela_test_control.h"
#include "tests/support/emulator.h"
#include "tests/support/log_lines.h"

namespace {

namespace vela = ky_loc_fw;
namespace vela_test = ky_loc_fw::vela_test;

constexpr char kReceived[] = "D Dispatcher: responseReceived for ID = %d\n";
constexpr char kUnexpected[] = "W Dispatcher: Unexpected request ID %d\n";
constexpr char kExpectedRelease[] = "D Dispatcher: Expected release for ID %d\n";
constexpr char kAborted[] = "D Dispatcher: Aborted ID %d\n";
constexpr char kNull[] = "W Dispatcher: received Null response.\n";

std::string Line(std::string format, unsigned int id) {
  const size_t at = format.find("%d");
  return at == std::string::npos ? format : format.replace(at, 2, std::to_string(int(id)));
}

// A client's callback object as the dispatcher sees it.
struct FakeRemote {
  std::atomic<int> retains{0}, releases{0}, calls{0};
  std::atomic<int> delivered{0};  // calls of the response function sent with it

  Object object() { return Object{&FakeRemote::Invoke, this}; }
  static int32_t Invoke(void* context, uint32_t op, ObjectArg*, uint32_t) {
    auto* r = static_cast<FakeRemote*>(context);
    const uint32_t code = op & OBJECT_OP_MASK;
    ++(code == OBJECT_OP_RETAIN ? r->retains : code == OBJECT_OP_RELEASE ? r->releases : r->calls);
    return 0;
  }
};

class DispatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    VelaDispatcher::Get();
    vela::log_set_local_level_for_tag("tesk", 2);
    Fresh();
  }
  void TearDown() override { Fresh(); }

  // No answers due or held, no hook, nothing logged yet.
  void Fresh() {
    vela_test::WaitIdle();
    vela_test::Reset();
    vela_test::RecordRequests();
    vela_test::HoldAnswers(true);
    log_.Take();
  }

  // A discovery scan `id` for `remote`, whose response function checks how
  // it is called and counts the delivery.
  static int32_t Send(unsigned int id, FakeRemote& remote, Object* handle) {
    using Scan = vela::VELADiscoveryScanRequest;
    std::unique_ptr<Scan> request(Scan::createFreshScanRequest(
        id, Scan::BAND_ALL, Scan::SCAN_TYPE_ACTIVE, 0, 0, Scan::REQUEST_MODE_NORMAL, false));
    const std::thread::id sender = std::this_thread::get_id();
    auto record = [sender, &remote](vela::VELAResponse* /*response*/, Object object) {
      EXPECT_NE(std::this_thread::get_id(), sender);  // the service's thread
      EXPECT_EQ(object.context, &remote);
      EXPECT_EQ(remote.releases, 0);  // still held while the call runs
      ++remote.delivered;
    };
    return VelaDispatcher::Get().SendRequest(request.get(), record, remote.object(), handle);
  }

  // Another answer to `id`.
  static vela::VELAResponse* AnswerTo(unsigned int id) {
    return vela_test::MakeResponseOfType(id, vela::VELAResponse::RESPONSE_TYPE_RANGING_SCAN);
  }

  tesk_test::LogLines log_;
};

// In a fresh process each, where the dispatcher does not exist yet. Under an
// emulator the test binary cannot start itself again; a fork is as fresh, as
// death tests run before all others.
TEST(DispatcherDeathTest, ExitsWhenTheClientCannotBeCreated) {
  ::testing::FLAGS_gtest_death_test_style = tesk_test::kUnderEmulator ? "fast" : "threadsafe";
  EXPECT_EXIT((vela_test::SetScenarioText("fault create\n"), VelaDispatcher::Get()),
              ::testing::ExitedWithCode(255),
              "E tesk: Dispatcher: Could not create the VELAClient");
}

// Steps after the send: a = the service answers, d = a second answer to the id,
// n = a null response, r = the handle is released, + = retained, m = a method
// of it is called (it has none). b first: the answer comes before SendRequest
// returns.
TEST_F(DispatcherTest, LogsAndDeliversAtMostOnceWhateverTheOrder) {
  const struct {
    const char* steps;
    std::vector<const char*> lines;
    int delivered;
  } cases[] = {
      {"ar", {kReceived, kExpectedRelease}, 1},
      {"adr", {kReceived, kReceived, kUnexpected, kExpectedRelease}, 1},
      {"ra", {kAborted, kReceived, kUnexpected}, 0},
      {"m+rar", {kReceived, kExpectedRelease}, 1},
      {"++rrra", {kAborted, kReceived, kUnexpected}, 0},
      {"nar", {kNull, kReceived, kExpectedRelease}, 1},
      {"br", {kReceived, kExpectedRelease}, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.steps);
    Fresh();
    if (c.steps[0] == 'b') {
      vela_test::SetSendHook([](const vela_test::SentRequest& sent, vela_test::SendAction* action) {
        action->automaticAnswer = false;
        action->beforeReturn.push_back(AnswerTo(sent.requestId));
      });
    }
    FakeRemote remote;
    const unsigned int id = ++VelaDispatcher::Get().next_request_id;
    Object handle;
    ASSERT_EQ(Send(id, remote, &handle), 0);
    for (const char* step = c.steps; *step != '\0'; ++step) {
      if (*step == 'a') vela_test::ReleaseHeldAnswers();
      if (*step == 'd') vela_test::DeliverAndWait(AnswerTo(id));
      if (*step == 'n') vela_test::DeliverAndWait(nullptr);
      const uint32_t op = *step == 'r' ? OBJECT_OP_RELEASE : *step == '+' ? OBJECT_OP_RETAIN : 0u;
      const int32_t result =
          std::strchr("r+m", *step) != nullptr ? handle.invoke(handle.context, op, nullptr, 0) : 0;
      EXPECT_EQ(result, *step == 'm' ? OBJECT_ERROR_INVALID : OBJECT_OK);
      vela_test::WaitIdle();
    }
    std::vector<std::string> expected;
    for (const char* format : c.lines) expected.push_back(Line(format, id));
    EXPECT_EQ(log_.Take(), expected);
    EXPECT_EQ(remote.delivered, c.delivered);
    EXPECT_EQ(remote.retains, 1);
    EXPECT_EQ(remote.releases, 1);
    EXPECT_EQ(remote.calls, 0);
  }
}

// Neither a duplicate id nor a refused request keeps or retains anything or
// touches the handle; a duplicate never reaches the service.
TEST_F(DispatcherTest, FailedSendsKeepNothing) {
  FakeRemote first, duplicate, refused;
  const unsigned int id = ++VelaDispatcher::Get().next_request_id,
                     refused_id = ++VelaDispatcher::Get().next_request_id;
  Object handle;
  ASSERT_EQ(Send(id, first, &handle), 0);
  const Object untouched{&FakeRemote::Invoke, &refused};
  Object out = untouched;
  EXPECT_EQ(Send(id, duplicate, &out), -1);
  EXPECT_EQ(vela_test::SentRequests().size(), 1u);
  vela_test::SetSendHook(
      [](const vela_test::SentRequest&, vela_test::SendAction* action) { action->result = 1; });
  EXPECT_EQ(Send(refused_id, refused, &out), -1);
  EXPECT_TRUE(out.invoke == untouched.invoke && out.context == untouched.context);
  EXPECT_EQ(duplicate.retains + duplicate.releases + refused.retains + refused.releases, 0);

  // The first request still owns its id; the refused one was never kept.
  vela_test::DeliverAndWait(AnswerTo(id));
  vela_test::DeliverAndWait(AnswerTo(refused_id));
  EXPECT_EQ(first.delivered, 1);
  EXPECT_EQ(log_.Take().back(), Line(kUnexpected, refused_id));
  ObjectRelease(handle);
}

// Threads send at once, then drop their handles while the answers come:
// every remote is retained and released exactly once, and every request ends
// delivered or aborted, never both.
TEST_F(DispatcherTest, ConcurrentSendsAndReleasesRacingTheAnswers) {
  constexpr int kThreads = 8, kPerThread = 25, kAll = kThreads * kPerThread;
  std::vector<FakeRemote> remotes(kAll);
  std::vector<unsigned int> ids(kAll);
  std::atomic<int> sent{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::vector<Object> handles(kPerThread);
      for (int i = 0, n = t * kPerThread; i < kPerThread; ++i, ++n) {
        ids[n] = ++VelaDispatcher::Get().next_request_id;
        EXPECT_EQ(Send(ids[n], remotes[n], &handles[i]), 0);
        ++sent;
      }
      while (sent < kAll) std::this_thread::yield();
      for (Object& handle : handles) ObjectRelease(handle);
    });
  }
  while (sent < kAll) std::this_thread::yield();
  EXPECT_EQ(vela_test::ReleaseHeldAnswers(), static_cast<size_t>(kAll));
  for (std::thread& thread : threads) thread.join();
  vela_test::WaitIdle();
  const std::vector<std::string> lines = log_.Take();
  for (int n = 0; n < kAll; ++n) {
    SCOPED_TRACE(n);
    EXPECT_EQ(remotes[n].retains, 1);
    EXPECT_EQ(remotes[n].releases, 1);
    EXPECT_EQ(remotes[n].delivered + std::count(lines.begin(), lines.end(), Line(kAborted, ids[n])),
              1);
  }
}

}  // namespace
