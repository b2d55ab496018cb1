// What the deauth tests share: netlink datagrams laid out as the kernel
// sends them, a captured log, and fakes for the monitor's callbacks.
#ifndef TESK_TESTS_DEAUTH_TEST_SUPPORT_H_
#define TESK_TESTS_DEAUTH_TEST_SUPPORT_H_

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <tesk/deauth_event.h>
#include <tesk/interfaces.h>
#include <tesk/object.h>

#include "deauth/deauth_detector.h"
#include "deauth/genl_message.h"
#include "ky_loc_fw/log_capture.h"

namespace deauth_test {

// nl80211's family id on a typical device.
constexpr uint16_t kNl80211Family = 28;

// A netlink header, the generic netlink header, then attributes each padded
// with zeros to 4 bytes (nla_len excludes the padding).
struct KernelMessage {
  explicit KernelMessage(uint16_t type = 0, uint8_t cmd = 0, uint8_t version = 1) : bytes(20, 0) {
    memcpy(&bytes[4], &type, 2);
    bytes[16] = cmd;
    bytes[17] = version;
  }
  KernelMessage& Put(uint16_t type, const void* data, size_t size) {
    const uint16_t header[2] = {static_cast<uint16_t>(4 + size), type};
    Raw(header, 4).Raw(data, size);
    bytes.resize((bytes.size() + 3) & ~size_t{3}, 0);
    return *this;
  }
  KernelMessage& PutU32(uint16_t type, uint32_t value) { return Put(type, &value, 4); }
  KernelMessage& PutU16(uint16_t type, uint16_t value) { return Put(type, &value, 2); }
  // An attribute whose payload is another message's attributes.
  KernelMessage& PutNested(uint16_t type, const KernelMessage& inner) {
    return Put(type, inner.bytes.data() + 20, inner.bytes.size() - 20);
  }
  KernelMessage& Raw(const void* data, size_t size) {
    bytes.insert(bytes.end(), static_cast<const uint8_t*>(data),
                 static_cast<const uint8_t*>(data) + size);
    return *this;
  }
  // The datagram, with nlmsg_len its size unless given.
  std::vector<uint8_t> Bytes(uint32_t nlmsg_len = 0) const {
    std::vector<uint8_t> out = bytes;
    if (nlmsg_len == 0) nlmsg_len = static_cast<uint32_t>(out.size());
    memcpy(out.data(), &nlmsg_len, 4);
    return out;
  }
  std::vector<uint8_t> bytes;
};

// nl80211's disconnect event as cfg80211 sends it: wiphy, ifindex, the
// reason when nonzero, the by-AP flag when set, the IEs when there are any.
inline KernelMessage DisconnectEvent(uint32_t wiphy, uint32_t ifindex, uint16_t reason, bool by_ap,
                                     const std::string& ies = "") {
  KernelMessage m(kNl80211Family, NL80211_CMD_DISCONNECT);
  m.PutU32(NL80211_ATTR_WIPHY, wiphy).PutU32(NL80211_ATTR_IFINDEX, ifindex);
  if (reason != 0) m.PutU16(NL80211_ATTR_REASON_CODE, reason);
  if (by_ap) m.Put(NL80211_ATTR_DISCONNECTED_BY_AP, "", 0);
  if (!ies.empty()) m.Put(42 /* NL80211_ATTR_IE */, ies.data(), ies.size());
  return m;
}

// The first n bytes of datagram, with nlmsg_len n.
inline std::vector<uint8_t> Cut(std::vector<uint8_t> datagram, uint32_t n) {
  datagram.resize(n);
  memcpy(datagram.data(), &n, 4);
  return datagram;
}

// One multicast group entry of a controller reply.
inline KernelMessage Group(const char* name, uint32_t id) {
  KernelMessage entry;
  entry.PutU32(CTRL_ATTR_MCAST_GRP_ID, id).Put(CTRL_ATTR_MCAST_GRP_NAME, name, strlen(name) + 1);
  return entry;
}

// nl80211's family id and groups, each entry nested under its index.
inline std::vector<uint8_t> FamilyReply(const std::vector<KernelMessage>& entries) {
  KernelMessage groups;
  uint16_t index = 0;
  for (const KernelMessage& entry : entries) groups.PutNested(++index, entry);
  KernelMessage m(GENL_ID_CTRL, CTRL_CMD_NEWFAMILY, 2);
  m.PutU16(CTRL_ATTR_FAMILY_ID, kNl80211Family).Put(CTRL_ATTR_FAMILY_NAME, "nl80211", 8);
  return m.PutNested(CTRL_ATTR_MCAST_GROUPS, groups).Bytes();
}

// A connected datagram pair: [0] for the side under test, [1] for the test.
struct DatagramPair {
  explicit DatagramPair(int flags = 0) {
    socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | flags, 0, fds);
  }
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

// The kernel as the detector reaches it, faked: Initialize opens `socket`
// and joining a group records it and answers `join_result` (errno EPERM).
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

// Every line logged with the tag "tesk" while alive, as "<letter> <text>".
class LogCapture {
 public:
  LogCapture() { ky_loc_fw::log_set_sink(&LogCapture::Sink, this, true); }
  ~LogCapture() { ky_loc_fw::log_set_sink(nullptr, nullptr, false); }
  std::vector<std::string> Lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  static void Sink(void* context, char letter, const char* tag, const char* text) {
    auto* self = static_cast<LogCapture*>(context);
    std::lock_guard<std::mutex> lock(self->mutex_);
    if (std::string(tag) == "tesk") self->lines_.push_back(std::string(1, letter) + " " + text);
  }
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// A callback object that counts what is done with it and passes every call
// on to inner, when there is one. A delivery that is not one 16-byte
// buffer, or comes while no reference is held, is bad.
struct FakeCallback {
  explicit FakeCallback(Object inner_in = kNullObject) : inner(inner_in) {}
  Object object() { return Object{&FakeCallback::Invoke, this}; }

  static int32_t Invoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts) {
    auto* self = static_cast<FakeCallback*>(context);
    if (op == OBJECT_OP_RETAIN) {
      ++self->retains;
    } else if (op == OBJECT_OP_RELEASE) {
      ++self->releases;
    } else {
      ++self->deliveries;
      if (op != OBJECT_OP_METHOD || counts != kDeauthEventCounts ||
          args[0].b.size != sizeof(DeauthEvent) || self->retains <= self->releases) {
        ++self->bad_deliveries;
      }
    }
    return IsNullObject(self->inner) ? 0
                                     : self->inner.invoke(self->inner.context, op, args, counts);
  }

  Object inner;
  std::atomic<int> retains{0}, releases{0}, deliveries{0}, bad_deliveries{0};
};

}  // namespace deauth_test

inline bool operator==(const DeauthEvent& a, const DeauthEvent& b) {
  return memcmp(&a, &b, sizeof a) == 0;
}
inline std::ostream& operator<<(std::ostream& os, const DeauthEvent& e) {
  return os << "{" << e.wiphy << ", " << e.ifindex << ", " << e.reason << ", " << e.by_ap << "}";
}

#endif  // TESK_TESTS_DEAUTH_TEST_SUPPORT_H_
