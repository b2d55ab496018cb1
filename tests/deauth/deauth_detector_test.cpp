#include "deauth/deauth_detector.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tests/deauth/kernel_message.h"
#include "tests/deauth/test_support.h"

namespace {

using deauth_test::DatagramPair;
using deauth_test::DisconnectEvent;
using deauth_test::EventRecorder;
using deauth_test::KernelMessage;
using deauth_test::kNl80211Family;
using deauth_test::LogCapture;
using deauth_test::McastGroup;

class FakeDetector : public DeauthDetector {
 public:
  explicit FakeDetector(EventRecorder* recorder = nullptr) : recorder_(recorder) {}

  void OnDeauth(int wiphy, int ifindex, int reason, bool by_ap) override {
    if (recorder_ != nullptr) recorder_->Add(DeauthEvent{wiphy, ifindex, reason, by_ap ? 1u : 0u});
  }

  using DeauthDetector::QueryFamilyGroup;
  void UseSocket(int fd) { socket_fd = fd; }
  int socket() const { return socket_fd; }
  uint16_t family() const { return family_id; }
  uint32_t group() const { return mlme_group_id; }
  int stop_write_end() const { return stop_pipe[1]; }
  void JoinListener() { listener_thread.join(); }

 private:
  EventRecorder* recorder_;
};

std::vector<uint8_t> Resized(std::vector<uint8_t> bytes, size_t n) {
  bytes.resize(n);
  return bytes;
}

std::vector<uint8_t> WithLength(std::vector<uint8_t> bytes, uint32_t nlmsg_len) {
  memcpy(bytes.data(), &nlmsg_len, 4);
  return bytes;
}

std::vector<uint8_t> U32(uint32_t v) {
  std::vector<uint8_t> out(4);
  memcpy(out.data(), &v, 4);
  return out;
}

const DeauthEvent kSentinel{9, 9, 9, 1};

struct EventCase {
  const char* name;
  std::vector<uint8_t> datagram;
  bool delivered;
  DeauthEvent expected;
  bool warns;
};

std::vector<EventCase> EventCases() {
  const uint16_t kFamily = kNl80211Family;
  return {
      {"reason and by-AP flag", DisconnectEvent(1, 4, 7, true), true, {1, 4, 7, 1}, false},
      {"locally generated, reason omitted",
       DisconnectEvent(0, 3, 0, false),
       true,
       {0, 3, 0, 0},
       false},
      {"information elements ignored",
       DisconnectEvent(2, 6, 3, false, "\xdd\x05\x00\x50\xf2\x01\x02"),
       true,
       {2, 6, 3, 0},
       false},
      {"largest reason code", DisconnectEvent(0, 1, 65535, false), true, {0, 1, 65535, 0}, false},
      {"no wiphy",
       KernelMessage(kFamily, NL80211_CMD_DISCONNECT)
           .PutU32(NL80211_ATTR_IFINDEX, 12)
           .PutU16(NL80211_ATTR_REASON_CODE, 3)
           .PutFlag(NL80211_ATTR_DISCONNECTED_BY_AP)
           .Bytes(),
       true,
       {0, 12, 3, 1},
       false},
      {"no attributes",
       KernelMessage(kFamily, NL80211_CMD_DISCONNECT).Bytes(),
       true,
       {0, 0, 0, 0},
       false},
      {"repeated attribute overwrites, short one does not",
       KernelMessage(kFamily, NL80211_CMD_DISCONNECT)
           .PutU32(NL80211_ATTR_WIPHY, 1)
           .PutU32(NL80211_ATTR_WIPHY, 2)
           .PutU32(NL80211_ATTR_IFINDEX, 5)
           .PutU16(NL80211_ATTR_IFINDEX, 6)
           .Put(NL80211_ATTR_REASON_CODE, "\x08", 1)
           .Bytes(),
       true,
       {2, 5, 0, 0},
       false},
      {"type flag bits are not masked",
       KernelMessage(kFamily, NL80211_CMD_DISCONNECT)
           .PutU32(NL80211_ATTR_WIPHY | NLA_F_NESTED, 3)
           .PutU32(NL80211_ATTR_IFINDEX, 4)
           .Bytes(),
       true,
       {0, 4, 0, 0},
       false},
      {"by-AP flag with a payload",
       KernelMessage(kFamily, NL80211_CMD_DISCONNECT)
           .PutU32(NL80211_ATTR_DISCONNECTED_BY_AP, 0)
           .Bytes(),
       true,
       {0, 0, 0, 1},
       false},
      {"zero-length attribute ends the walk",
       KernelMessage(kFamily, NL80211_CMD_DISCONNECT)
           .PutU32(NL80211_ATTR_WIPHY, 5)
           .Raw({0, 0, 3, 0})
           .PutU32(NL80211_ATTR_IFINDEX, 6)
           .Bytes(),
       true,
       {5, 0, 0, 0},
       false},
      {"attribute shorter than its header is stepped over",
       KernelMessage(kFamily, NL80211_CMD_DISCONNECT)
           .Raw({2, 0, 1, 0})
           .PutU32(NL80211_ATTR_IFINDEX, 6)
           .Bytes(),
       true,
       {0, 6, 0, 0},
       false},
      {"attribute beyond the datagram ends the walk",
       KernelMessage(kFamily, NL80211_CMD_DISCONNECT)
           .PutU32(NL80211_ATTR_IFINDEX, 6)
           .Raw({200, 0, 1, 0, 1, 0, 0, 0})
           .Bytes(),
       true,
       {0, 6, 0, 0},
       false},
      {"attributes run to the datagram's end, not nlmsg_len",
       WithLength(DisconnectEvent(7, 8, 1, true), 20),
       true,
       {7, 8, 1, 1},
       false},
      {"deauthenticate command",
       KernelMessage(kFamily, deauth_test::kNl80211CmdDeauthenticate)
           .PutU32(NL80211_ATTR_WIPHY, 1)
           .PutU32(NL80211_ATTR_IFINDEX, 4)
           .Bytes(),
       false,
       {},
       false},
      {"other family", DisconnectEvent(1, 4, 7, true, "", kFamily + 1), false, {}, false},
      {"controller message",
       KernelMessage(GENL_ID_CTRL, NL80211_CMD_DISCONNECT).Bytes(),
       false,
       {},
       false},
      {"netlink header only",
       WithLength(Resized(DisconnectEvent(1, 2, 3, false), 16), 16),
       false,
       {},
       false},
      {"no room for the genl header",
       WithLength(Resized(DisconnectEvent(1, 2, 3, false), 19), 19),
       false,
       {},
       false},
      {"empty datagram", {}, false, {}, false},
      {"ten bytes", Resized(DisconnectEvent(1, 2, 3, false), 10), false, {}, true},
      {"nlmsg_len beyond the datagram",
       WithLength(DisconnectEvent(1, 2, 3, false), 200),
       false,
       {},
       true},
      {"nlmsg_len below a header",
       WithLength(DisconnectEvent(1, 2, 3, false), 15),
       false,
       {},
       true},
  };
}

TEST(DeauthListenerTest, ReadsDisconnectEventsAndDropsTheRest) {
  for (const EventCase& c : EventCases()) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    EventRecorder recorder;
    DatagramPair pair;
    {
      FakeDetector detector(&recorder);
      ASSERT_TRUE(detector.StartListenerForTesting(pair.TakeFirst(), kNl80211Family));
      ASSERT_TRUE(pair.Send(c.datagram));
      // Datagrams are read in order: once the sentinel is in, the case is done.
      ASSERT_TRUE(pair.Send(DisconnectEvent(9, 9, 9, true)));
      const std::vector<DeauthEvent> events = recorder.WaitFor(c.delivered ? 2 : 1);
      std::vector<DeauthEvent> expected;
      if (c.delivered) expected.push_back(c.expected);
      expected.push_back(kSentinel);
      EXPECT_EQ(events, expected);
    }
    std::vector<std::string> expected_log;
    if (c.warns) expected_log.push_back("W Bad Netlink message length");
    EXPECT_EQ(log.Lines(), expected_log);
  }
}

TEST(DeauthListenerTest, EventPendingWithStopIsDeliveredFirst) {
  EventRecorder recorder;
  DatagramPair pair;
  FakeDetector detector(&recorder);
  recorder.CloseGate();
  ASSERT_TRUE(detector.StartListenerForTesting(pair.TakeFirst(), kNl80211Family));
  ASSERT_TRUE(pair.Send(DisconnectEvent(1, 1, 1, false)));
  recorder.WaitFor(1);  // the listener is now held inside OnDeauth

  ASSERT_TRUE(pair.Send(DisconnectEvent(2, 2, 2, false)));
  ASSERT_EQ(write(detector.stop_write_end(), "x", 1), 1);
  recorder.OpenGate();
  // The stop byte alone ends the thread; this join would hang otherwise.
  detector.JoinListener();
  EXPECT_EQ(recorder.WaitFor(2), (std::vector<DeauthEvent>{{1, 1, 1, 0}, {2, 2, 2, 0}}));
}

TEST(DeauthDetectorTest, SecondInitializeOpensNothing) {
  FakeDetector detector;
  const int fd = dup(STDIN_FILENO);
  ASSERT_GE(fd, 0);
  detector.UseSocket(fd);
  EXPECT_TRUE(detector.Initialize());
  EXPECT_EQ(detector.socket(), fd);
}

// Controller replies injected through a datagram pair, read by the very
// QueryMlmeInfo the daemon runs.
struct ReplyCase {
  const char* name;
  std::vector<uint8_t> reply;
  bool found;
  uint16_t family;
  uint32_t group;
  std::vector<std::string> log;
};

KernelMessage FamilyReply() {
  KernelMessage m(GENL_ID_CTRL, CTRL_CMD_NEWFAMILY, 2);
  m.PutU16(CTRL_ATTR_FAMILY_ID, 28).PutString(CTRL_ATTR_FAMILY_NAME, "nl80211");
  m.PutU32(CTRL_ATTR_VERSION, 1).PutU32(CTRL_ATTR_HDRSIZE, 0).PutU32(CTRL_ATTR_MAXATTR, 330);
  return m;
}

// The groups attribute: each entry nested under its index, as the kernel does.
KernelMessage Groups(const std::vector<KernelMessage>& entries) {
  KernelMessage groups = deauth_test::Attributes();
  uint16_t index = 1;
  for (const KernelMessage& entry : entries) groups.PutNested(index++, entry);
  return groups;
}

std::vector<ReplyCase> ReplyCases() {
  const std::vector<KernelMessage> device_groups = {
      McastGroup("config", 5), McastGroup("scan", 6),   McastGroup("regulatory", 7),
      McastGroup("mlme", 8),   McastGroup("vendor", 9), McastGroup("nan", 10)};
  KernelMessage mlme_reversed = deauth_test::Attributes();
  mlme_reversed.PutString(CTRL_ATTR_MCAST_GRP_NAME, "mlme").PutU32(CTRL_ATTR_MCAST_GRP_ID, 4);
  KernelMessage short_id = deauth_test::Attributes();
  short_id.PutU16(CTRL_ATTR_MCAST_GRP_ID, 4).PutString(CTRL_ATTR_MCAST_GRP_NAME, "mlme");
  KernelMessage unterminated = deauth_test::Attributes();
  unterminated.PutU32(CTRL_ATTR_MCAST_GRP_ID, 4).Put(CTRL_ATTR_MCAST_GRP_NAME, "mlme", 4);
  KernelMessage two_ids = deauth_test::Attributes();
  two_ids.PutU32(CTRL_ATTR_MCAST_GRP_ID, 3)
      .PutU32(CTRL_ATTR_MCAST_GRP_ID, 4)
      .PutString(CTRL_ATTR_MCAST_GRP_NAME, "mlme");
  KernelMessage broken_entry_first = Groups({McastGroup("scan", 6)});
  broken_entry_first.Raw({0, 0, 2, 0}).PutNested(3, McastGroup("mlme", 8));

  KernelMessage error(NLMSG_ERROR, 0, 0);
  error.Raw(U32(static_cast<uint32_t>(-ENOENT)));

  const std::string kNone = "I family 65535 group -1";
  return {
      {"mlme among other groups",
       FamilyReply().PutNested(CTRL_ATTR_MCAST_GROUPS, Groups(device_groups)).Bytes(),
       true,
       28,
       8,
       {"I family 28 group 8"}},
      {"groups before the family id",
       KernelMessage(GENL_ID_CTRL, CTRL_CMD_NEWFAMILY, 2)
           .PutNested(CTRL_ATTR_MCAST_GROUPS, Groups(device_groups))
           .PutU16(CTRL_ATTR_FAMILY_ID, 31)
           .Bytes(),
       true,
       31,
       8,
       {"I family 31 group 8"}},
      {"name before id",
       FamilyReply().PutNested(CTRL_ATTR_MCAST_GROUPS, Groups({mlme_reversed})).Bytes(),
       true,
       28,
       4,
       {"I family 28 group 4"}},
      {"latest id of a group counts",
       FamilyReply().PutNested(CTRL_ATTR_MCAST_GROUPS, Groups({two_ids})).Bytes(),
       true,
       28,
       4,
       {"I family 28 group 4"}},
      {"walk ends once both are found",
       FamilyReply()
           .PutNested(CTRL_ATTR_MCAST_GROUPS, Groups(device_groups))
           .Put(CTRL_ATTR_FAMILY_ID, "\x01", 1)
           .Bytes(),
       true,
       28,
       8,
       {"I family 28 group 8"}},
      {"no mlme group",
       FamilyReply()
           .PutNested(CTRL_ATTR_MCAST_GROUPS,
                      Groups({McastGroup("scan", 6), McastGroup("mlmex", 7), McastGroup("mlm", 8)}))
           .Bytes(),
       false,
       28,
       0xFFFFFFFF,
       {"I family 28 group -1"}},
      {"no groups at all", FamilyReply().Bytes(), false, 28, 0xFFFFFFFF, {"I family 28 group -1"}},
      {"six-byte group id",
       FamilyReply().PutNested(CTRL_ATTR_MCAST_GROUPS, Groups({short_id})).Bytes(),
       false,
       28,
       0xFFFFFFFF,
       {"I family 28 group -1"}},
      {"unterminated group name",
       FamilyReply().PutNested(CTRL_ATTR_MCAST_GROUPS, Groups({unterminated})).Bytes(),
       false,
       28,
       0xFFFFFFFF,
       {"I family 28 group -1"}},
      {"malformed group entry ends the search",
       FamilyReply().PutNested(CTRL_ATTR_MCAST_GROUPS, broken_entry_first).Bytes(),
       false,
       28,
       0xFFFFFFFF,
       {"I family 28 group -1"}},
      {"family id too short",
       KernelMessage(GENL_ID_CTRL, CTRL_CMD_NEWFAMILY, 2)
           .Put(CTRL_ATTR_FAMILY_ID, "\x1c", 1)
           .PutNested(CTRL_ATTR_MCAST_GROUPS, Groups(device_groups))
           .Bytes(),
       false,
       0xFFFF,
       8,
       {"I family 65535 group 8"}},
      {"error reply", error.Bytes(), false, 0xFFFF, 0xFFFFFFFF, {kNone}},
      {"reply of another type",
       KernelMessage(GENL_ID_CTRL + 1, CTRL_CMD_NEWFAMILY, 2)
           .PutU16(CTRL_ATTR_FAMILY_ID, 28)
           .Bytes(),
       false,
       0xFFFF,
       0xFFFFFFFF,
       {kNone}},
      {"nlmsg_len beyond the datagram",
       WithLength(FamilyReply().Bytes(), 4000),
       false,
       0xFFFF,
       0xFFFFFFFF,
       {"W Bad Netlink message length", kNone}},
      {"ten bytes",
       Resized(FamilyReply().Bytes(), 10),
       false,
       0xFFFF,
       0xFFFFFFFF,
       {"W Bad Netlink message length", kNone}},
  };
}

std::vector<uint8_t> ExpectedRequest() {
  std::vector<uint8_t> request = {32, 0, 0, 0, 16, 0, 1, 0, 1, 0, 0, 0};
  const std::vector<uint8_t> pid = U32(static_cast<uint32_t>(getpid()));
  request.insert(request.end(), pid.begin(), pid.end());
  const uint8_t tail[] = {3, 1, 0, 0, 12, 0, 2, 0, 'n', 'l', '8', '0', '2', '1', '1', 0};
  request.insert(request.end(), tail, tail + sizeof tail);
  return request;
}

TEST(QueryMlmeInfoTest, SendsTheFamilyQueryAndReadsTheReply) {
  for (const ReplyCase& c : ReplyCases()) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    DatagramPair pair;
    ASSERT_TRUE(pair.Send(c.reply));  // queued before the request goes out
    FakeDetector detector;
    detector.UseSocket(pair.TakeFirst());
    EXPECT_EQ(detector.QueryMlmeInfo(), c.found);
    EXPECT_EQ(detector.family(), c.family);
    EXPECT_EQ(detector.group(), c.group);
    EXPECT_EQ(log.Lines(), c.log);

    std::vector<uint8_t> request(4096);
    const ssize_t n = recv(pair.fds[1], request.data(), request.size(), MSG_DONTWAIT);
    ASSERT_GE(n, 0);
    request.resize(static_cast<size_t>(n));
    EXPECT_EQ(request, ExpectedRequest());
  }
}

TEST(QueryMlmeInfoTest, LogsSocketFailures) {
  LogCapture log;
  {
    FakeDetector unopened;
    EXPECT_FALSE(unopened.QueryMlmeInfo());
  }
  DatagramPair silent(SOCK_NONBLOCK);
  {
    FakeDetector detector;
    detector.UseSocket(silent.TakeFirst());
    EXPECT_FALSE(detector.QueryMlmeInfo());
  }
  EXPECT_EQ(
      log.Lines(),
      (std::vector<std::string>{
          std::string("E Failed to send GETFAMILY:  9 (") + strerror(EBADF) + ")",
          std::string("E Failed to recv GETFAMILY response: 11 (") + strerror(EAGAIN) + ")"}));
}

// The lookup against the running kernel's controller, with a family and a
// group every Linux kernel has.
class RealControllerTest : public testing::Test {
 protected:
  void SetUp() override {
    const int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_GENERIC);
    if (fd < 0) GTEST_SKIP() << "no generic netlink here: " << strerror(errno);
    detector_.UseSocket(fd);
  }

  LogCapture log_;
  FakeDetector detector_;
};

TEST_F(RealControllerTest, ResolvesTheControllersOwnNotifyGroup) {
  EXPECT_TRUE(detector_.QueryFamilyGroup("nlctrl", "notify"));
  EXPECT_EQ(detector_.family(), GENL_ID_CTRL);
  EXPECT_EQ(log_.Lines(),
            (std::vector<std::string>{"I family 16 group " + std::to_string(detector_.group())}));
  EXPECT_NE(detector_.group(), 0xFFFFFFFFu);
}

TEST_F(RealControllerTest, MissingGroup) {
  EXPECT_FALSE(detector_.QueryFamilyGroup("nlctrl", "mlme"));
  EXPECT_EQ(log_.Lines(), (std::vector<std::string>{"I family 16 group -1"}));
}

TEST_F(RealControllerTest, MissingFamilyGetsAnErrorReply) {
  EXPECT_FALSE(detector_.QueryFamilyGroup("tesk-no-such-family", "mlme"));
  EXPECT_EQ(log_.Lines(), (std::vector<std::string>{"I family 65535 group -1"}));
}

TEST(DeauthDetectorTest, InitializeWithoutNl80211ClosesTheSocket) {
  LogCapture log;
  FakeDetector detector;
  if (detector.Initialize()) GTEST_SKIP() << "this machine has nl80211";
  EXPECT_EQ(detector.socket(), -1);
  const std::vector<std::string> lines = log.Lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "I family 65535 group -1");
}

}  // namespace
