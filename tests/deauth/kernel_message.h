// Builds netlink datagrams the way the kernel lays them out: a netlink
// header, the generic netlink header, then attributes each padded with
// zeros to 4 bytes (nla_len excludes the padding, nlmsg_len includes it).
#ifndef TESK_TESTS_DEAUTH_KERNEL_MESSAGE_H_
#define TESK_TESTS_DEAUTH_KERNEL_MESSAGE_H_

#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "deauth/deauth_event.h"
#include "deauth/genl_message.h"

namespace deauth_test {

// nl80211's family id on a typical device, and its deauthenticate command.
constexpr uint16_t kNl80211Family = 28;
constexpr uint8_t kNl80211CmdDeauthenticate = 39;
constexpr uint16_t kNl80211AttrIe = 42;

class KernelMessage {
 public:
  KernelMessage(uint16_t type, uint8_t cmd, uint8_t version = 1) : bytes_(20, 0) {
    Store16(4, type);
    bytes_[16] = cmd;
    bytes_[17] = version;
  }

  KernelMessage& Put(uint16_t type, const void* data, size_t size) {
    const size_t start = bytes_.size();
    bytes_.resize(start + 4);
    Store16(start, static_cast<uint16_t>(4 + size));
    Store16(start + 2, type);
    const uint8_t* p = static_cast<const uint8_t*>(data);
    bytes_.insert(bytes_.end(), p, p + size);
    bytes_.resize((bytes_.size() + 3) & ~size_t{3}, 0);
    return *this;
  }
  KernelMessage& PutU32(uint16_t type, uint32_t value) { return Put(type, &value, 4); }
  KernelMessage& PutU16(uint16_t type, uint16_t value) { return Put(type, &value, 2); }
  KernelMessage& PutFlag(uint16_t type) { return Put(type, nullptr, 0); }
  KernelMessage& PutString(uint16_t type, const std::string& s) {
    return Put(type, s.c_str(), s.size() + 1);
  }
  // Bytes appended as they are, for malformed attributes.
  KernelMessage& Raw(const std::vector<uint8_t>& raw) {
    bytes_.insert(bytes_.end(), raw.begin(), raw.end());
    return *this;
  }
  // A nested attribute whose payload is another builder's attributes.
  KernelMessage& PutNested(uint16_t type, const KernelMessage& inner) {
    std::vector<uint8_t> payload(inner.bytes_.begin() + 20, inner.bytes_.end());
    return Put(type, payload.data(), payload.size());
  }

  std::vector<uint8_t> Bytes() const {
    std::vector<uint8_t> out = bytes_;
    const uint32_t len = static_cast<uint32_t>(out.size());
    memcpy(out.data(), &len, 4);
    return out;
  }

 private:
  void Store16(size_t offset, uint16_t value) { memcpy(&bytes_[offset], &value, 2); }

  std::vector<uint8_t> bytes_;
};

// Only the attributes, for nesting.
inline KernelMessage Attributes() {
  return KernelMessage(0, 0, 0);
}

// nl80211's disconnect event as cfg80211 sends it: wiphy, ifindex, the
// reason when nonzero, the by-AP flag when set, the IEs when there are any.
inline std::vector<uint8_t> DisconnectEvent(uint32_t wiphy, uint32_t ifindex, uint16_t reason,
                                            bool by_ap, const std::string& ies = "",
                                            uint16_t family = kNl80211Family) {
  KernelMessage m(family, NL80211_CMD_DISCONNECT);
  m.PutU32(NL80211_ATTR_WIPHY, wiphy).PutU32(NL80211_ATTR_IFINDEX, ifindex);
  if (reason != 0) m.PutU16(NL80211_ATTR_REASON_CODE, reason);
  if (by_ap) m.PutFlag(NL80211_ATTR_DISCONNECTED_BY_AP);
  if (!ies.empty()) m.Put(kNl80211AttrIe, ies.data(), ies.size());
  return m.Bytes();
}

// One multicast group entry of a controller reply.
inline KernelMessage McastGroup(const std::string& name, uint32_t id) {
  KernelMessage group = Attributes();
  group.PutU32(CTRL_ATTR_MCAST_GRP_ID, id).PutString(CTRL_ATTR_MCAST_GRP_NAME, name);
  return group;
}

}  // namespace deauth_test

inline bool operator==(const DeauthEvent& a, const DeauthEvent& b) {
  return memcmp(&a, &b, sizeof a) == 0;
}

inline std::ostream& operator<<(std::ostream& os, const DeauthEvent& e) {
  return os << "{" << e.wiphy << ", " << e.ifindex << ", " << e.reason << ", " << e.by_ap << "}";
}

#endif  // TESK_TESTS_DEAUTH_KERNEL_MESSAGE_H_
