// What the detector reads from the kernel, with a socket pair in its place:
// the controller's reply to its lookup and disconnect events; then, end to
// end, its events reaching teskctl watch through the monitor served over the
// IPC library.
#include "deauth/deauth_detector.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "deauth/deauth_monitor.h"
#include "deauth/disconnect_event.h"
#include "deauth/family_lookup.h"
#include "deauth/genl_message.h"
#include "service/root_object.h"
#include "tarnsocket/tarn_ipc.h"
#include "tests/support/daemon_process.h"
#include "tests/support/log_lines.h"
#include "tests/support/temp_dir.h"

namespace {

using Lines = std::vector<std::string>;

// nl80211's family id on a typical device.
constexpr uint16_t kNl80211Family = 28;

// wiphy, ifindex, reason, by AP: one disconnect as the tests compare it.
using Event = std::array<uint32_t, 4>;

// A netlink header, the generic netlink header, then attributes each padded
// with zeros to 4 bytes (nla_len excludes the padding).
struct KernelMessage {
  explicit KernelMessage(uint16_t type = 0, uint8_t cmd = 0) : bytes(20, 0) {
    memcpy(&bytes[4], &type, 2);
    bytes[16] = cmd;
  }
  KernelMessage& Put(uint16_t type, const void* data, size_t size) {
    const uint16_t header[2] = {static_cast<uint16_t>(4 + size), type};
    Raw(header, 4).Raw(data, size);
    bytes.resize((bytes.size() + 3) & ~size_t{3}, 0);
    return *this;
  }
  KernelMessage& PutU32(uint16_t type, uint32_t value) { return Put(type, &value, 4); }
  KernelMessage& PutU16(uint16_t type, uint16_t value) { return Put(type, &value, 2); }
  KernelMessage& Raw(const void* data, size_t size) {
    bytes.insert(bytes.end(), static_cast<const uint8_t*>(data),
                 static_cast<const uint8_t*>(data) + size);
    return *this;
  }
  // The datagram, cut to its first n bytes when n is given, with nlmsg_len
  // its size unless given.
  std::vector<uint8_t> Bytes(uint32_t nlmsg_len = 0, size_t n = SIZE_MAX) const {
    std::vector<uint8_t> out(bytes.begin(), bytes.begin() + std::min(n, bytes.size()));
    if (nlmsg_len == 0) nlmsg_len = static_cast<uint32_t>(out.size());
    memcpy(out.data(), &nlmsg_len, 4);
    return out;
  }
  std::vector<uint8_t> bytes;
};

// nl80211's disconnect event as cfg80211 sends it: wiphy, ifindex, the
// reason when nonzero, the by-AP flag when set.
KernelMessage DisconnectEvent(uint32_t wiphy, uint32_t ifindex, uint16_t reason, bool by_ap) {
  KernelMessage m(kNl80211Family, NL80211_CMD_DISCONNECT);
  m.PutU32(NL80211_ATTR_WIPHY, wiphy).PutU32(NL80211_ATTR_IFINDEX, ifindex);
  if (reason != 0) m.PutU16(NL80211_ATTR_REASON_CODE, reason);
  if (by_ap) m.Put(NL80211_ATTR_DISCONNECTED_BY_AP, "", 0);
  return m;
}

// One multicast group entry of a controller reply.
KernelMessage Group(const char* name, uint32_t id) {
  KernelMessage entry;
  return entry.PutU32(CTRL_ATTR_MCAST_GRP_ID, id)
      .Put(CTRL_ATTR_MCAST_GRP_NAME, name, strlen(name) + 1);
}

// nl80211's family id and groups, each entry nested under its index.
std::vector<uint8_t> FamilyReply(const std::vector<KernelMessage>& entries) {
  KernelMessage groups;
  uint16_t index = 0;
  for (const KernelMessage& e : entries)
    groups.Put(++index, e.bytes.data() + 20, e.bytes.size() - 20);
  KernelMessage m(GENL_ID_CTRL, CTRL_CMD_NEWFAMILY);
  m.PutU16(CTRL_ATTR_FAMILY_ID, kNl80211Family).Put(CTRL_ATTR_FAMILY_NAME, "nl80211", 8);
  return m.Put(CTRL_ATTR_MCAST_GROUPS, groups.bytes.data() + 20, groups.bytes.size() - 20).Bytes();
}

// A connected datagram pair: [0] for the side under test, [1] for the test.
struct DatagramPair {
  DatagramPair() { socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, fds); }
  ~DatagramPair() {
    for (int fd : fds) close(fd);
  }
  int TakeFirst() { return std::exchange(fds[0], -1); }
  bool Send(const std::vector<uint8_t>& datagram) const {
    return send(fds[1], datagram.data(), datagram.size(), 0) ==
           static_cast<ssize_t>(datagram.size());
  }
  int fds[2] = {-1, -1};
};

// The kernel as the detector reaches it, faked: opening answers `socket`,
// joining a group records it and answers `join_result` (errno EPERM).
struct FakeNetlink {
  static inline int socket = -1;
  static inline int join_result = 0;
  static inline uint32_t joined = 0;
  static constexpr NetlinkAccess kAccess = {
      [] { return socket; },
      [](int /*fd*/, uint32_t group) {
        joined = group;
        errno = EPERM;
        return join_result;
      },
  };
};

struct Detector : DeauthDetector {
  void OnDeauth(int /*wiphy*/, int /*ifindex*/, int /*reason*/, bool /*by_ap*/) override {}
};

// Replies that make a start fail, and what each logs; the socket is closed
// again.
TEST(DeauthDetectorTest, FailedStartsLogWhyAndCloseTheSocket) {
  KernelMessage six_byte_id, error_reply(NLMSG_ERROR);
  six_byte_id.PutU16(CTRL_ATTR_MCAST_GRP_ID, 4).Put(CTRL_ATTR_MCAST_GRP_NAME, "mlme", 5);
  const int32_t enoent = -ENOENT;
  error_reply.Raw(&enoent, 4);
  const std::string eperm =
      "E setsockopt failed: " + std::to_string(EPERM) + " (" + strerror(EPERM) + ")";
  const std::pair<std::vector<uint8_t>, Lines> cases[] = {
      {error_reply.Bytes(), {"I family 65535 group -1"}},
      {std::vector<uint8_t>(10), {"W Bad Netlink message length", "I family 65535 group -1"}},
      {FamilyReply({Group("mlmex", 7), Group("mlm", 8)}), {"I family 28 group -1"}},
      {FamilyReply({six_byte_id}), {"I family 28 group -1"}},
      {FamilyReply({Group("mlme", 8)}), {"I family 28 group 8", eperm}},  // joining fails
  };
  FakeNetlink::join_result = -1;  // only the last case gets that far
  for (const auto& [reply, lines] : cases) {
    SCOPED_TRACE(lines.back());
    tesk_test::LogLines log;
    DatagramPair pair;
    EXPECT_TRUE(pair.Send(reply));
    FakeNetlink::socket = pair.TakeFirst();
    Detector detector;
    EXPECT_FALSE(detector.Initialize(FakeNetlink::kAccess));
    EXPECT_EQ(fcntl(FakeNetlink::socket, F_GETFD), -1) << "closed";
    EXPECT_EQ(log.Take(), lines);
  }
}

// The request the daemon builds, put to the running kernel's controller,
// for a family and a group every Linux kernel has.
TEST(FamilyLookupTest, ResolvesTheRealControllersNotifyGroup) {
  const int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_GENERIC);
  if (fd < 0) GTEST_SKIP() << "no generic netlink here: " << strerror(errno);
  tesk_test::LogLines log;
  FamilyLookup lookup;
  EXPECT_TRUE(QueryFamily(fd, "nlctrl", "notify", lookup));
  close(fd);
  EXPECT_EQ(lookup.family_id, GENL_ID_CTRL);
  EXPECT_EQ(log.Take(), Lines{"I family 16 group " + std::to_string(lookup.group_id)});
}

TEST(DisconnectEventTest, ReadsDisconnectsAndIgnoresTheRest) {
  KernelMessage repeated = DisconnectEvent(1, 5, 0, false);
  repeated.PutU32(NL80211_ATTR_WIPHY, 2).PutU16(NL80211_ATTR_IFINDEX, 6);
  repeated.Put(NL80211_ATTR_REASON_CODE, "\x08", 1).Put(NL80211_ATTR_IE, "\xdd\x01\x00", 3);
  const KernelMessage event = DisconnectEvent(1, 2, 3, false);
  std::vector<uint8_t> deauthenticate = event.Bytes(), other_family = event.Bytes();
  deauthenticate[16] = NL80211_CMD_DEAUTHENTICATE;
  other_family[4] = kNl80211Family + 1;

  const EventDatagram kBad = EventDatagram::kBadLength, kIgnored = EventDatagram::kIgnored,
                      kDisconnect = EventDatagram::kDisconnect;
  const struct {
    const char* name;
    std::vector<uint8_t> datagram;
    EventDatagram kind;
    Event event;  // when kind is kDisconnect
  } cases[] = {
      {"repeats overwrite, short ones do not", repeated.Bytes(), kDisconnect, {2, 5, 0, 0}},
      {"read past nlmsg_len", DisconnectEvent(7, 8, 1, true).Bytes(20), kDisconnect, {7, 8, 1, 1}},
      {"no attributes",
       KernelMessage(kNl80211Family, NL80211_CMD_DISCONNECT).Bytes(),
       kDisconnect,
       {0, 0, 0, 0}},
      {"deauthenticate command", deauthenticate, kIgnored, {}},
      {"other family", other_family, kIgnored, {}},
      {"no room for the genl header", event.Bytes(0, 19), kIgnored, {}},
      {"nlmsg_len beyond the datagram", event.Bytes(200), kBad, {}},
      {"nlmsg_len below a header", event.Bytes(15), kBad, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AttrParser attributes;
    ASSERT_EQ(CheckEventDatagram(c.datagram.data(), c.datagram.size(), kNl80211Family, &attributes),
              c.kind);
    if (c.kind != kDisconnect) continue;
    const Disconnect d = ReadDisconnect(attributes);
    EXPECT_EQ((Event{d.wiphy, d.ifindex, d.reason, d.by_ap}), c.event);
  }
}

// The detector looks nl80211's "mlme" group up, joins it and listens; a
// datagram too short for netlink is dropped and the next events still come.
TEST(DeauthOverIpcTest, TeskctlWatchGetsEachEventInOrderUntilKilled) {
  tesk_test::LogLines log;
  static DatagramPair kernel;  // the monitor listens on it until the process ends
  ASSERT_TRUE(kernel.Send(FamilyReply({Group("scan", 6), Group("mlme", 8), Group("v", 9)})));
  FakeNetlink::socket = kernel.TakeFirst();
  FakeNetlink::join_result = 0;
  ASSERT_TRUE(DeauthMonitor::Get().Initialize(FakeNetlink::kAccess));
  EXPECT_EQ(FakeNetlink::joined, 8u);
  FakeNetlink::socket = -1;
  EXPECT_TRUE(DeauthMonitor::Get().Initialize(FakeNetlink::kAccess))
      << "a second call opens nothing";

  tesk_test::TempDir dir;
  const std::string path = dir.Join("tesk");
  const int listen_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{AF_UNIX, {}};
  ASSERT_LT(path.size(), sizeof address.sun_path);
  strcpy(address.sun_path, path.c_str());
  ASSERT_EQ(bind(listen_fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  void* service = TarnIPC_startServiceOnSocket(listen_fd, &root_invoke, nullptr);
  ASSERT_NE(service, nullptr);

  // What teskctl writes, once it holds `lines` lines; no deadlines: the
  // test's own timeout catches a hang.
  const std::string out = dir.Join("out"), err = dir.Join("err");
  const pid_t pid = tesk_test::StartProcess({TESKCTL, "--socket", path, "watch"}, {}, out, err);
  const auto await = [](const std::string& file, long lines) {
    std::string text;
    while (std::count(text.begin(), text.end(), '\n') < lines) {
      usleep(10000);
      text = tesk_test::ReadFile(file);
    }
    return text;
  };
  EXPECT_EQ(await(err, 1), "teskctl: watching disconnect events; interrupt to stop\n");
  ASSERT_TRUE(kernel.Send(DisconnectEvent(1, 4, 7, true).Bytes()));
  ASSERT_TRUE(kernel.Send({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
  ASSERT_TRUE(kernel.Send(DisconnectEvent(0, 3, 0, false).Bytes()));
  ASSERT_TRUE(kernel.Send(DisconnectEvent(2, 9, 65535, false).Bytes()));
  EXPECT_EQ(await(out, 3),
            "disconnect: wiphy 1, ifindex 4, reason 7, by access point\n"
            "disconnect: wiphy 0, ifindex 3, reason 0, local\n"
            "disconnect: wiphy 2, ifindex 9, reason 65535, local\n");
  kill(pid, SIGKILL);
  tesk_test::AwaitExit(pid);
  DeauthMonitor::Get().OnDeauth(5, 5, 5, false);  // to a client gone, or no longer registered
  EXPECT_EQ(log.Take(),
            (std::vector<std::string>{"I family 28 group 8", "W Bad Netlink message length"}));

  TarnIPC_stopService(service);
  TarnIPC_join(service);
  close(listen_fd);
}

}  // namespace
