// A client that registers each token the daemon gave it as the callback of
// its next registration, and drops the token: the daemon then holds the
// whole chain for it. The chain still counts against the client's export
// limit, and letting it go unravels it link by link on a small stack.
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <tesk/interfaces.h>

#include "tarnsocket/tarn_ipc.h"
#include "teskclient/session.h"
#include "tests/support/daemon_process.h"

namespace {

struct Callback {
  Object object() { return Object{&Callback::Invoke, this}; }
  static int32_t Invoke(void* context, uint32_t op, ObjectArg*, uint32_t) {
    auto* self = static_cast<Callback*>(context);
    if ((op & OBJECT_OP_MASK) == OBJECT_OP_RETAIN) ++self->retains;
    if ((op & OBJECT_OP_MASK) == OBJECT_OP_RELEASE) ++self->releases;
    return OBJECT_OK;
  }
  std::atomic<int> retains{0}, releases{0};
};

// The daemon with a given export limit, its threads' stacks a device's 1 MiB.
std::unique_ptr<tesk_test::DaemonProcess> StartDaemon(const std::string& max_exports) {
  rlimit before{};
  getrlimit(RLIMIT_STACK, &before);
  rlimit small = before;
  small.rlim_cur = 1 << 20;
  setrlimit(RLIMIT_STACK, &small);  // inherited by the daemon
  auto daemon = std::make_unique<tesk_test::DaemonProcess>(
      tesk_test::DaemonProcess::Options{"", {"TARN_MAX_EXPORTS=" + max_exports}});
  setrlimit(RLIMIT_STACK, &before);
  EXPECT_TRUE(daemon->WaitUntilServing());
  return daemon;
}

struct Chain {
  explicit Chain(const tesk_test::DaemonProcess& daemon) {
    EXPECT_EQ(teskclient::Connect(daemon.socket_path(), &root), 0);
    EXPECT_EQ(teskclient::OpenService(root, kInterfaceDeauthMonitor, &service), OBJECT_OK);
  }
  ~Chain() { Close(); }  // the library's workers may still hold `first`
  // Up to `links` registrations, each on the last token, which is then let
  // go; the result of the first that fails, or 0.
  int32_t Grow(int links) {
    Object callback = first.object();
    for (int i = 0; i < links; ++i) {
      Object token = kNullObject;
      const int32_t result = teskclient::WatchDisconnects(service, callback, &token);
      if (i > 0) ObjectRelease(callback);
      if (result != OBJECT_OK) return result;
      callback = token;
      ++length;
    }
    last = callback;
    return OBJECT_OK;
  }
  bool AwaitFirstReleased() const {
    for (int i = 0; i < 3000 && first.releases < first.retains; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return first.retains == 1 && first.releases == 1;
  }
  // Ends the connection; true once the first callback has been given back.
  bool Close() {
    for (Object* object : {&last, &service, &root}) {
      ObjectRelease(*object);
      *object = kNullObject;
    }
    return AwaitFirstReleased();
  }

  Callback first;
  Object root = kNullObject, service = kNullObject, last = kNullObject;
  int length = 0;
};

TEST(DeauthTokenChainTest, TheChainCountsAgainstTheClientsExportLimit) {
  const auto daemon = StartDaemon("64");
  Chain chain(*daemon);
  EXPECT_EQ(chain.Grow(1000), TARN_IPC_ERROR_TOO_MANY_OBJECTS);
  EXPECT_LE(chain.length, 64);
  ObjectRelease(chain.last);  // the rest goes with it, back to the first callback
  chain.last = kNullObject;
  EXPECT_TRUE(chain.AwaitFirstReleased());
  Chain again(*daemon);
  EXPECT_EQ(again.Grow(10), OBJECT_OK);
  EXPECT_TRUE(chain.Close());
  EXPECT_TRUE(again.Close());
  EXPECT_TRUE(daemon->Running());
}

TEST(DeauthTokenChainTest, LongChainsUnravelOnASmallStack) {
  const auto daemon = StartDaemon("100000");
  Chain released(*daemon), dropped(*daemon);
  ASSERT_EQ(released.Grow(5000), OBJECT_OK);
  ASSERT_EQ(dropped.Grow(5000), OBJECT_OK);
  ObjectRelease(released.last);
  released.last = kNullObject;
  EXPECT_TRUE(released.AwaitFirstReleased());
  EXPECT_TRUE(dropped.Close());  // the connection ends with the chain in place
  Chain after(*daemon);
  EXPECT_EQ(after.Grow(1), OBJECT_OK);
  EXPECT_TRUE(released.Close());
  EXPECT_TRUE(after.Close());
  EXPECT_TRUE(daemon->Running());
  EXPECT_EQ(daemon->Log().find("Sanitizer"), std::string::npos) << daemon->Log();
}

}  // namespace
