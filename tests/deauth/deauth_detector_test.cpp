// The detector as the daemon runs it, with a socket pair in place of the
// kernel: Initialize, the controller lookup, the listener thread, the stop.
#include "deauth/deauth_detector.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "deauth/family_lookup.h"
#include "tests/deauth/test_support.h"

namespace {

using deauth_test::DatagramPair;
using deauth_test::DisconnectEvent;
using deauth_test::FakeNetlink;
using deauth_test::FamilyReply;
using deauth_test::Group;
using deauth_test::LogCapture;
using Lines = std::vector<std::string>;

// Records the events it gets; may hold the first one until released.
class FakeDetector : public DeauthDetector {
 public:
  ~FakeDetector() override {
    Hold(false);
    Stop();
  }
  void OnDeauth(int wiphy, int ifindex, int reason, bool by_ap) override {
    std::unique_lock<std::mutex> lock(mutex_);
    events_.push_back(DeauthEvent{wiphy, ifindex, reason, by_ap ? 1u : 0u});
    changed_.notify_all();
    changed_.wait(lock, [&] { return !hold_; });
  }
  std::vector<DeauthEvent> WaitFor(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return events_.size() >= count; });
    return events_;
  }
  void Hold(bool hold) {
    std::lock_guard<std::mutex> lock(mutex_);
    hold_ = hold;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<DeauthEvent> events_;
  bool hold_ = false;
};

bool IsOpen(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

TEST(DeauthDetectorTest, InitializesOverTheControllerAndDeliversEvents) {
  LogCapture log;
  DatagramPair pair;
  // Queued before the request goes out; the request itself is checked
  // against the running kernel below.
  ASSERT_TRUE(pair.Send(FamilyReply({Group("scan", 6), Group("mlme", 8)})));
  FakeNetlink::socket = pair.TakeFirst();
  FakeNetlink::join_result = 0;
  FakeDetector detector;
  ASSERT_TRUE(detector.Initialize(FakeNetlink::kAccess));
  EXPECT_EQ(FakeNetlink::joined, 8u);
  FakeNetlink::socket = -1;
  EXPECT_TRUE(detector.Initialize(FakeNetlink::kAccess)) << "a second call opens nothing";

  ASSERT_TRUE(pair.Send(DisconnectEvent(1, 4, 7, true).Bytes()));
  ASSERT_TRUE(pair.Send({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
  ASSERT_TRUE(pair.Send(DisconnectEvent(0, 3, 0, false).Bytes()));
  EXPECT_EQ(detector.WaitFor(2), (std::vector<DeauthEvent>{{1, 4, 7, 1}, {0, 3, 0, 0}}));
  EXPECT_EQ(log.Lines(), (Lines{"I family 28 group 8", "W Bad Netlink message length"}));
}

TEST(DeauthDetectorTest, FailedStartsCloseTheSocket) {
  struct Case {
    const char* name;
    std::vector<uint8_t> reply;
    int join_result;
    Lines log;
  };
  const Case cases[] = {
      {"no mlme group", FamilyReply({Group("scan", 6)}), 0, {"I family 28 group -1"}},
      {"join refused",
       FamilyReply({Group("mlme", 8)}),
       -1,
       {"I family 28 group 8", std::string("E setsockopt failed: 1 (") + strerror(EPERM) + ")"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    DatagramPair pair;
    ASSERT_TRUE(pair.Send(c.reply));
    FakeNetlink::socket = pair.TakeFirst();
    FakeNetlink::join_result = c.join_result;
    FakeDetector detector;
    EXPECT_FALSE(detector.Initialize(FakeNetlink::kAccess));
    EXPECT_FALSE(IsOpen(FakeNetlink::socket));
    EXPECT_EQ(log.Lines(), c.log);
  }
  LogCapture log;
  FakeNetlink::socket = -1;
  errno = EMFILE;
  FakeDetector unopened;
  EXPECT_FALSE(unopened.Initialize(FakeNetlink::kAccess));
  EXPECT_EQ(log.Lines(),
            Lines{std::string("E Failed to open netlink socket: 24 (") + strerror(EMFILE) + ")"});
}

// The listener is stopped while it handles a first event, with a second
// one pending: that one still goes first.
TEST(DeauthDetectorTest, EventPendingWithStopIsDeliveredFirst) {
  DatagramPair pair;
  ASSERT_TRUE(pair.Send(FamilyReply({Group("mlme", 8)})));
  FakeNetlink::socket = pair.TakeFirst();
  FakeNetlink::join_result = 0;
  FakeDetector detector;
  ASSERT_TRUE(detector.Initialize(FakeNetlink::kAccess));
  detector.Hold(true);
  ASSERT_TRUE(pair.Send(DisconnectEvent(1, 1, 1, false).Bytes()));
  detector.WaitFor(1);
  ASSERT_TRUE(pair.Send(DisconnectEvent(2, 2, 2, false).Bytes()));
  // Stop writes the stop byte while the first event is held, then waits.
  std::thread stop([&] { detector.Stop(); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  detector.Hold(false);
  stop.join();  // the stop byte alone ends the thread, or this hangs
  EXPECT_EQ(detector.WaitFor(2), (std::vector<DeauthEvent>{{1, 1, 1, 0}, {2, 2, 2, 0}}));
}

TEST(FamilyLookupTest, LogsSocketFailures) {
  LogCapture log;
  DatagramPair pair(SOCK_NONBLOCK);
  FamilyLookup lookup;
  EXPECT_FALSE(QueryFamily(-1, "nl80211", "mlme", lookup));
  EXPECT_FALSE(QueryFamily(pair.fds[0], "nl80211", "mlme", lookup));
  EXPECT_EQ(
      log.Lines(),
      (Lines{std::string("E Failed to send GETFAMILY:  9 (") + strerror(EBADF) + ")",
             std::string("E Failed to recv GETFAMILY response: 11 (") + strerror(EAGAIN) + ")"}));
}

// The same lookup against the running kernel's controller, with a family
// and a group every Linux kernel has.
TEST(FamilyLookupTest, ResolvesTheRealControllersNotifyGroup) {
  const int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_GENERIC);
  if (fd < 0) GTEST_SKIP() << "no generic netlink here: " << strerror(errno);
  LogCapture log;
  FamilyLookup lookup;
  EXPECT_TRUE(QueryFamily(fd, "nlctrl", "notify", lookup));
  close(fd);
  EXPECT_EQ(lookup.family_id, GENL_ID_CTRL);
  EXPECT_EQ(log.Lines(), Lines{"I family 16 group " + std::to_string(lookup.group_id)});
}

TEST(DeauthDetectorTest, InitializeWithoutNl80211FailsQuietly) {
  const int probe = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC);
  if (probe < 0) GTEST_SKIP() << "no generic netlink here: " << strerror(errno);
  close(probe);
  LogCapture log;
  FakeDetector detector;
  if (detector.Initialize()) GTEST_SKIP() << "this machine has nl80211";
  EXPECT_EQ(log.Lines(), Lines{"I family 65535 group -1"});
}

}  // namespace
