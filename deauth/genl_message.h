// Building generic netlink requests and reading the attributes of the
// messages the kernel sends, directly on the kernel's nlmsghdr and nlattr
// layouts (host byte order). No netlink library, no allocation, no logging.
#ifndef TESK_DEAUTH_GENL_MESSAGE_H_
#define TESK_DEAUTH_GENL_MESSAGE_H_

#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <linux/nl80211.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

// The controller numbers come from the kernel's uapi headers; they are ABI
// and must never change, which these checks pin down.
static_assert(AF_NETLINK == 16 && SOCK_RAW == 3 && NETLINK_GENERIC == 16, "netlink ABI");
static_assert(SOL_NETLINK == 270 && NETLINK_ADD_MEMBERSHIP == 1, "netlink ABI");
static_assert(GENL_ID_CTRL == 16 && NLM_F_REQUEST == 1 && CTRL_CMD_GETFAMILY == 3, "genl ABI");
static_assert(CTRL_ATTR_FAMILY_ID == 1 && CTRL_ATTR_FAMILY_NAME == 2 &&
                  CTRL_ATTR_MCAST_GROUPS == 7 && CTRL_ATTR_MCAST_GRP_NAME == 1 &&
                  CTRL_ATTR_MCAST_GRP_ID == 2,
              "genl controller ABI");

static_assert(NL80211_CMD_DISCONNECT == 48 && NL80211_ATTR_WIPHY == 1 &&
                  NL80211_ATTR_IFINDEX == 3 && NL80211_ATTR_REASON_CODE == 54 &&
                  NL80211_ATTR_DISCONNECTED_BY_AP == 71,
              "nl80211 ABI");

// Bytes of a netlink header and of the generic netlink header behind it.
constexpr size_t kNlmsgHeaderSize = 16;
constexpr size_t kGenlHeaderSize = 4;
constexpr size_t kNlattrHeaderSize = 4;

// The controller reply and every event are received into a malloc'd buffer
// of this size; nl80211's disconnect events are far smaller.
constexpr size_t kNetlinkBufferSize = 4096;
struct FreeDeleter {
  // The buffers are malloc'd as the detector has always done; this deleter is
  // what owns them.
  void operator()(void* p) const { free(p); }  // NOLINT(cppcoreguidelines-owning-memory)
};
using NetlinkBuffer = std::unique_ptr<uint8_t, FreeDeleter>;
inline NetlinkBuffer AllocateNetlinkBuffer() {
  return NetlinkBuffer(static_cast<uint8_t*>(malloc(kNetlinkBufferSize)));
}

// Writes cmd and version behind the 16-byte netlink header of msg, whose
// buffer holds size bytes. 0, or -1 when there is no room.
int AddGenlHeader(nlmsghdr* msg, size_t size, uint8_t cmd, uint8_t version);

// Appends a NUL-terminated string attribute. 0, or -1 when it does not fit.
int AddAttribute(nlmsghdr* msg, size_t size, uint16_t type, const char* value);

// Copies exactly size payload bytes to out; false (out untouched) when the
// payload is shorter.
bool ReadAttribute(const nlattr* attr, void* out, size_t size);

// Whether the payload holds a NUL-terminated string.
bool CheckStringAttr(const nlattr* attr);

// The netlink header at the start of a received datagram.
inline const nlmsghdr* NetlinkHeader(const uint8_t* datagram) {
  return static_cast<const nlmsghdr*>(static_cast<const void*>(datagram));
}

// Netlink's own sanity check of a datagram's first message: a whole header,
// and an nlmsg_len neither below it nor beyond the datagram.
inline bool BadNetlinkLength(const uint8_t* datagram, size_t n) {
  return n < kNlmsgHeaderSize || NetlinkHeader(datagram)->nlmsg_len < kNlmsgHeaderSize ||
         NetlinkHeader(datagram)->nlmsg_len > n;
}

// The attribute starting at byte offset of a message buffer. Netlink keeps
// attributes 4-aligned, so the cast is sound for every offset we use.
inline const nlattr* AttrAt(const void* base, size_t offset) {
  return static_cast<const nlattr*>(
      static_cast<const void*>(static_cast<const uint8_t*>(base) + offset));
}

// A cursor over a run of attributes. Consumers take it by reference so that
// they advance the owner's copy.
struct AttrParser {
  const nlattr* pos = nullptr;
  uint64_t remaining = 0;

  // Over the run of size bytes at start; a run that cannot hold one
  // attribute header is exhausted from the outset.
  static AttrParser Over(const void* start, uint64_t size) {
    return AttrParser{static_cast<const nlattr*>(start), size};
  }

  // The payload of attr seen as a run of nested attributes; empty when attr
  // is too short to have a payload at all.
  static AttrParser Nested(const nlattr* attr) {
    const uint64_t size = attr->nla_len > kNlattrHeaderSize ? attr->nla_len - kNlattrHeaderSize : 0;
    return Over(AttrAt(attr, kNlattrHeaderSize), size);
  }

  bool Exhausted() const { return remaining < kNlattrHeaderSize; }

  // The next attribute, or null when the run is over. A zero length or one
  // beyond the bytes left ends the run for good.
  const nlattr* Next() {
    if (Exhausted()) return nullptr;
    const uint64_t step = (pos->nla_len + 3u) & 0x1FFFCu;
    if (pos->nla_len == 0 || step > remaining) {
      remaining = 0;
      return nullptr;
    }
    const nlattr* attr = pos;
    pos = AttrAt(pos, step);
    remaining -= step;
    return attr;
  }
};

#endif  // TESK_DEAUTH_GENL_MESSAGE_H_
