// What the deauth tests share: netlink datagrams laid out as the kernel
// sends them, and the kernel faked for the detector.
#ifndef TESK_TESTS_DEAUTH_TEST_SUPPORT_H_
#define TESK_TESTS_DEAUTH_TEST_SUPPORT_H_

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "deauth/deauth_detector.h"
#include "deauth/genl_message.h"

namespace deauth_test {

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
inline KernelMessage DisconnectEvent(uint32_t wiphy, uint32_t ifindex, uint16_t reason,
                                     bool by_ap) {
  KernelMessage m(kNl80211Family, NL80211_CMD_DISCONNECT);
  m.PutU32(NL80211_ATTR_WIPHY, wiphy).PutU32(NL80211_ATTR_IFINDEX, ifindex);
  if (reason != 0) m.PutU16(NL80211_ATTR_REASON_CODE, reason);
  if (by_ap) m.Put(NL80211_ATTR_DISCONNECTED_BY_AP, "", 0);
  return m;
}

// One multicast group entry of a controller reply.
inline KernelMessage Group(const char* name, uint32_t id) {
  KernelMessage entry;
  return entry.PutU32(CTRL_ATTR_MCAST_GRP_ID, id)
      .Put(CTRL_ATTR_MCAST_GRP_NAME, name, strlen(name) + 1);
}

// nl80211's family id and groups, each entry nested under its index.
inline std::vector<uint8_t> FamilyReply(const std::vector<KernelMessage>& entries) {
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

}  // namespace deauth_test

#endif  // TESK_TESTS_DEAUTH_TEST_SUPPORT_H_
