// What the detector reads from the kernel: the controller's reply to its
// lookup, with a socket pair in place of the kernel, and disconnect events.
// Listening itself is shown end to end by deauth_ipc_test.
#include "deauth/deauth_detector.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "deauth/disconnect_event.h"
#include "deauth/family_lookup.h"
#include "tests/deauth/test_support.h"
#include "tests/support/log_lines.h"

namespace {

using deauth_test::DisconnectEvent;
using deauth_test::Event;
using deauth_test::FakeNetlink;
using deauth_test::FamilyReply;
using deauth_test::Group;
using deauth_test::KernelMessage;
using deauth_test::kNl80211Family;
using Lines = std::vector<std::string>;

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
    deauth_test::DatagramPair pair;
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
      {"ten bytes", event.Bytes(0, 10), kBad, {}},
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

}  // namespace
