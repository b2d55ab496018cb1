#include "deauth/deauth_detector.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tests/deauth/test_support.h"

namespace {

using deauth_test::DatagramPair;
using deauth_test::DisconnectEvent;
using deauth_test::KernelMessage;
using deauth_test::kNl80211Family;
using deauth_test::LogCapture;
using Lines = std::vector<std::string>;

// Records the events it gets, in order.
class FakeDetector : public DeauthDetector {
 public:
  void OnDeauth(int wiphy, int ifindex, int reason, bool by_ap) override {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(DeauthEvent{wiphy, ifindex, reason, by_ap ? 1u : 0u});
    changed_.notify_all();
    if (then_stop != nullptr) {  // a second event and the stop byte, together
      EXPECT_TRUE(std::exchange(then_stop, nullptr)->Send(DisconnectEvent(2, 2, 2, false).Bytes()));
      EXPECT_EQ(write(stop_pipe[1], "x", 1), 1);
    }
  }
  std::vector<DeauthEvent> WaitFor(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return events_.size() >= count; });
    return events_;
  }
  DatagramPair* then_stop = nullptr;
  using DeauthDetector::family_id;
  using DeauthDetector::listener_thread;
  using DeauthDetector::mlme_group_id;
  using DeauthDetector::QueryFamilyGroup;
  using DeauthDetector::socket_fd;
  using DeauthDetector::stop_pipe;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<DeauthEvent> events_;
};

// The first n bytes of datagram, with nlmsg_len n.
std::vector<uint8_t> Cut(std::vector<uint8_t> datagram, uint32_t n) {
  datagram.resize(n);
  memcpy(datagram.data(), &n, 4);
  return datagram;
}

TEST(DeauthListenerTest, DeliversDisconnectEventsAndDropsTheRest) {
  KernelMessage repeated = DisconnectEvent(1, 5, 0, false);
  repeated.PutU32(NL80211_ATTR_WIPHY, 2).PutU16(NL80211_ATTR_IFINDEX, 6);
  repeated.Put(NL80211_ATTR_REASON_CODE, "\x08", 1);
  std::vector<uint8_t> event = DisconnectEvent(1, 2, 3, false).Bytes(), deauthenticate = event;
  deauthenticate[16] = 39;  // NL80211_CMD_DEAUTHENTICATE
  std::vector<uint8_t> other_family = event;
  other_family[4] = kNl80211Family + 1;
  const std::string ies("\xdd\x05\x00\x50\xf2\x01\x02", 7);

  struct Case {
    const char* name;
    std::vector<uint8_t> datagram;
    std::vector<DeauthEvent> events;
    bool warns;
  };
  const Case cases[] = {
      {"by the AP, with a reason", DisconnectEvent(1, 4, 7, true).Bytes(), {{1, 4, 7, 1}}, false},
      {"local, reason omitted", DisconnectEvent(0, 3, 0, false).Bytes(), {{0, 3, 0, 0}}, false},
      {"with IEs", DisconnectEvent(2, 6, 65535, false, ies).Bytes(), {{2, 6, 65535, 0}}, false},
      {"repeats overwrite, short ones do not", repeated.Bytes(), {{2, 5, 0, 0}}, false},
      {"read past nlmsg_len", DisconnectEvent(7, 8, 1, true).Bytes(20), {{7, 8, 1, 1}}, false},
      {"deauthenticate command", deauthenticate, {}, false},
      {"other family", other_family, {}, false},
      {"no room for the genl header", Cut(event, 19), {}, false},
      {"ten bytes", Cut(event, 10), {}, true},
      {"nlmsg_len beyond the datagram", DisconnectEvent(1, 2, 3, false).Bytes(200), {}, true},
      {"nlmsg_len below a header", DisconnectEvent(1, 2, 3, false).Bytes(15), {}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    DatagramPair pair;
    FakeDetector detector;
    ASSERT_TRUE(detector.StartListenerForTesting(pair.TakeFirst(), kNl80211Family));
    ASSERT_TRUE(pair.Send(c.datagram));
    // Datagrams are read in order: once this one is in, the case is done.
    ASSERT_TRUE(pair.Send(DisconnectEvent(9, 9, 9, true).Bytes()));
    std::vector<DeauthEvent> expected = c.events;
    expected.push_back({9, 9, 9, 1});
    EXPECT_EQ(detector.WaitFor(expected.size()), expected);
    EXPECT_EQ(log.Lines(), c.warns ? Lines{"W Bad Netlink message length"} : Lines{});
  }
}

// The listener is stopped while it handles a first event, with a second
// one pending: that one still goes first.
TEST(DeauthListenerTest, EventPendingWithStopIsDeliveredFirst) {
  DatagramPair pair;
  FakeDetector detector;
  detector.then_stop = &pair;
  ASSERT_TRUE(detector.StartListenerForTesting(pair.TakeFirst(), kNl80211Family));
  ASSERT_TRUE(pair.Send(DisconnectEvent(1, 1, 1, false).Bytes()));
  detector.listener_thread.join();  // the stop byte alone ends the thread, or this hangs
  EXPECT_EQ(detector.WaitFor(2), (std::vector<DeauthEvent>{{1, 1, 1, 0}, {2, 2, 2, 0}}));
}

// One multicast group entry of a controller reply.
KernelMessage Group(const char* name, uint32_t id) {
  KernelMessage entry;
  entry.PutU32(CTRL_ATTR_MCAST_GRP_ID, id).Put(CTRL_ATTR_MCAST_GRP_NAME, name, strlen(name) + 1);
  return entry;
}

// nl80211's family id and groups, each entry nested under its index.
std::vector<uint8_t> FamilyReply(const std::vector<KernelMessage>& entries) {
  KernelMessage groups;
  uint16_t index = 0;
  for (const KernelMessage& entry : entries) groups.PutNested(++index, entry);
  KernelMessage m(GENL_ID_CTRL, CTRL_CMD_NEWFAMILY, 2);
  m.PutU16(CTRL_ATTR_FAMILY_ID, 28).Put(CTRL_ATTR_FAMILY_NAME, "nl80211", 8);
  return m.PutNested(CTRL_ATTR_MCAST_GROUPS, groups).Bytes();
}

// Controller replies queued on a datagram pair, read by the very
// QueryMlmeInfo the daemon runs (the request itself is checked against the
// running kernel below).
TEST(QueryMlmeInfoTest, ReadsTheControllersReply) {
  KernelMessage six_byte_id;
  six_byte_id.PutU16(CTRL_ATTR_MCAST_GRP_ID, 4).Put(CTRL_ATTR_MCAST_GRP_NAME, "mlme", 5);
  KernelMessage error(NLMSG_ERROR, 0, 0);
  const int32_t enoent = -ENOENT;
  error.Raw(&enoent, 4);
  const std::vector<uint8_t> reply =
      FamilyReply({Group("config", 5), Group("scan", 6), Group("mlme", 8), Group("vendor", 9)});

  struct Case {
    const char* name;
    std::vector<uint8_t> reply;
    bool found;
    Lines log;
  };
  const std::string kNone = "I family 65535 group -1", kNoGroup = "I family 28 group -1";
  const Case cases[] = {
      {"mlme between other groups", reply, true, {"I family 28 group 8"}},
      {"no mlme", FamilyReply({Group("mlmex", 7), Group("mlm", 8)}), false, {kNoGroup}},
      {"six-byte group id", FamilyReply({six_byte_id}), false, {kNoGroup}},
      {"error reply", error.Bytes(), false, {kNone}},
      {"ten bytes", Cut(reply, 10), false, {"W Bad Netlink message length", kNone}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    DatagramPair pair;
    ASSERT_TRUE(pair.Send(c.reply));  // queued before the request goes out
    FakeDetector detector;
    detector.socket_fd = pair.TakeFirst();
    EXPECT_EQ(detector.QueryMlmeInfo(), c.found);
    EXPECT_EQ(log.Lines(), c.log);
  }
}

TEST(QueryMlmeInfoTest, LogsSocketFailures) {
  LogCapture log;
  DatagramPair pair(SOCK_NONBLOCK);
  FakeDetector unopened, silent;
  silent.socket_fd = pair.TakeFirst();
  EXPECT_FALSE(unopened.QueryMlmeInfo());
  EXPECT_FALSE(silent.QueryMlmeInfo());
  EXPECT_EQ(
      log.Lines(),
      (Lines{std::string("E Failed to send GETFAMILY:  9 (") + strerror(EBADF) + ")",
             std::string("E Failed to recv GETFAMILY response: 11 (") + strerror(EAGAIN) + ")"}));
}

// The same lookup against the running kernel's controller, with a family
// and a group every Linux kernel has.
TEST(RealControllerTest, ResolvesTheControllersOwnNotifyGroup) {
  LogCapture log;
  FakeDetector detector;
  detector.socket_fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_GENERIC);
  if (detector.socket_fd < 0) GTEST_SKIP() << "no generic netlink here: " << strerror(errno);
  EXPECT_TRUE(detector.QueryFamilyGroup("nlctrl", "notify"));
  EXPECT_EQ(detector.family_id, GENL_ID_CTRL);
  EXPECT_EQ(log.Lines(), Lines{"I family 16 group " + std::to_string(detector.mlme_group_id)});
}

TEST(DeauthDetectorTest, InitializeWithoutNl80211ClosesTheSocket) {
  LogCapture log;
  FakeDetector detector;
  if (detector.Initialize()) GTEST_SKIP() << "this machine has nl80211";
  EXPECT_EQ(detector.socket_fd, -1);
  EXPECT_EQ(log.Lines(), Lines{"I family 65535 group -1"});
}

}  // namespace
