// The two parsers of what the kernel sends: a controller reply and a
// disconnect event, fed as whole datagrams.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "deauth/disconnect_event.h"
#include "deauth/family_lookup.h"
#include "tests/deauth/test_support.h"

namespace {

using deauth_test::Cut;
using deauth_test::DisconnectEvent;
using deauth_test::FamilyReply;
using deauth_test::Group;
using deauth_test::KernelMessage;
using deauth_test::kNl80211Family;

TEST(DisconnectEventTest, ReadsDisconnectsAndIgnoresTheRest) {
  KernelMessage repeated = DisconnectEvent(1, 5, 0, false);
  repeated.PutU32(NL80211_ATTR_WIPHY, 2).PutU16(NL80211_ATTR_IFINDEX, 6);
  repeated.Put(NL80211_ATTR_REASON_CODE, "\x08", 1);
  const std::vector<uint8_t> event = DisconnectEvent(1, 2, 3, false).Bytes();
  std::vector<uint8_t> deauthenticate = event, other_family = event;
  deauthenticate[16] = NL80211_CMD_DEAUTHENTICATE;
  other_family[4] = kNl80211Family + 1;
  const std::string ies("\xdd\x05\x00\x50\xf2\x01\x02", 7);

  struct Case {
    const char* name;
    std::vector<uint8_t> datagram;
    EventDatagram kind;
    DeauthEvent event;  // when kind is kDisconnect
  };
  const EventDatagram kBad = EventDatagram::kBadLength, kIgnored = EventDatagram::kIgnored,
                      kDisconnect = EventDatagram::kDisconnect;
  const Case cases[] = {
      {"by the AP, with a reason",
       DisconnectEvent(1, 4, 7, true).Bytes(),
       kDisconnect,
       {1, 4, 7, 1}},
      {"local, reason omitted", DisconnectEvent(0, 3, 0, false).Bytes(), kDisconnect, {0, 3, 0, 0}},
      {"with IEs", DisconnectEvent(2, 6, 65535, false, ies).Bytes(), kDisconnect, {2, 6, 65535, 0}},
      {"repeats overwrite, short ones do not", repeated.Bytes(), kDisconnect, {2, 5, 0, 0}},
      {"read past nlmsg_len", DisconnectEvent(7, 8, 1, true).Bytes(20), kDisconnect, {7, 8, 1, 1}},
      {"no attributes",
       KernelMessage(kNl80211Family, NL80211_CMD_DISCONNECT).Bytes(),
       kDisconnect,
       {0, 0, 0, 0}},
      {"deauthenticate command", deauthenticate, kIgnored, {}},
      {"other family", other_family, kIgnored, {}},
      {"no room for the genl header", Cut(event, 19), kIgnored, {}},
      {"ten bytes", Cut(event, 10), kBad, {}},
      {"nlmsg_len beyond the datagram", DisconnectEvent(1, 2, 3, false).Bytes(200), kBad, {}},
      {"nlmsg_len below a header", DisconnectEvent(1, 2, 3, false).Bytes(15), kBad, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    AttrParser attributes;
    ASSERT_EQ(CheckEventDatagram(c.datagram.data(), c.datagram.size(), kNl80211Family, &attributes),
              c.kind);
    if (c.kind != kDisconnect) continue;
    const Disconnect d = ReadDisconnect(attributes);
    EXPECT_EQ((DeauthEvent{static_cast<int32_t>(d.wiphy), static_cast<int32_t>(d.ifindex), d.reason,
                           d.by_ap ? 1u : 0u}),
              c.event);
  }
}

TEST(FamilyLookupTest, ReadsTheControllersReply) {
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
    bool well_formed, found_family, found_group;
    uint32_t group_id;
  };
  const Case cases[] = {
      {"mlme between other groups", reply, true, true, true, 8},
      {"no mlme", FamilyReply({Group("mlmex", 7), Group("mlm", 8)}), true, true, false, 0xFFFFFFFF},
      {"six-byte group id", FamilyReply({six_byte_id}), true, true, false, 0xFFFFFFFF},
      {"error reply", error.Bytes(), true, false, false, 0xFFFFFFFF},
      {"ten bytes", Cut(reply, 10), false, false, false, 0xFFFFFFFF},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FamilyLookup lookup;
    EXPECT_EQ(ReadFamilyReply(c.reply.data(), c.reply.size(), "mlme", lookup), c.well_formed);
    EXPECT_EQ(lookup.found_family, c.found_family);
    EXPECT_EQ(lookup.family_id, c.found_family ? kNl80211Family : 0xFFFF);
    EXPECT_EQ(lookup.found_group, c.found_group);
    EXPECT_EQ(lookup.group_id, c.group_id);
  }
}

}  // namespace
