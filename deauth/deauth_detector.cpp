#include "deauth/deauth_detector.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ky_loc_fw/log.h"

namespace {

constexpr const char* kTag = "tesk";

// Both the controller reply and every event are read into one buffer of
// this size; nl80211's disconnect events are far smaller.
constexpr size_t kBufferSize = 4096;

struct FreeDeleter {
  void operator()(void* p) const { free(p); }
};
using Buffer = std::unique_ptr<uint8_t, FreeDeleter>;

Buffer AllocateBuffer() {
  return Buffer(static_cast<uint8_t*>(malloc(kBufferSize)));
}

const nlmsghdr* HeaderOf(const uint8_t* bytes) {
  return static_cast<const nlmsghdr*>(static_cast<const void*>(bytes));
}

// Netlink's own sanity check of a datagram's first message.
bool BadLength(const uint8_t* datagram, size_t n) {
  return n < kNlmsgHeaderSize || HeaderOf(datagram)->nlmsg_len < kNlmsgHeaderSize ||
         HeaderOf(datagram)->nlmsg_len > n;
}

}  // namespace

DeauthDetector::~DeauthDetector() {
  if (socket_fd < 0) return;
  if (listener_thread.joinable()) {
    if (write(stop_pipe[1], "x", 1) != 1) {
      const int error = errno;
      ky_loc_fw::log_error(kTag, "Failed to stop listener thread %d (%s)", error, strerror(error));
    } else {
      listener_thread.join();
    }
  }
  close(socket_fd);
  close(stop_pipe[0]);
  close(stop_pipe[1]);
  // A thread left joinable by a failed stop ends the process when it is
  // destroyed right after this; kept so, there is no detaching.
}

bool DeauthDetector::Initialize() {
  if (socket_fd >= 0) return true;

  socket_fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_GENERIC);
  if (socket_fd < 0) {
    const int error = errno;
    ky_loc_fw::log_error(kTag, "Failed to open netlink socket: %d (%s)", error, strerror(error));
    return false;
  }

  if (QueryMlmeInfo()) {
    if (setsockopt(socket_fd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &mlme_group_id,
                   sizeof mlme_group_id) != 0) {
      const int error = errno;
      ky_loc_fw::log_error(kTag, "setsockopt failed: %d (%s)", error, strerror(error));
    } else if (pipe(stop_pipe) == 0) {  // a pipe failure is silent, kept on purpose
      // A failure to start the thread throws out of here and ends the process.
      listener_thread = std::thread(&DeauthDetector::Listen, this);
      return true;
    }
  }

  close(socket_fd);
  socket_fd = -1;
  return false;
}

bool DeauthDetector::QueryMlmeInfo() {
  return QueryFamilyGroup("nl80211", "mlme");
}

bool DeauthDetector::QueryFamilyGroup(const char* family_name, const char* group_name) {
  Buffer buffer = AllocateBuffer();
  if (!buffer) return false;
  uint8_t* bytes = buffer.get();
  memset(bytes + kNlmsgHeaderSize, 0, kBufferSize - kNlmsgHeaderSize);

  nlmsghdr* request = static_cast<nlmsghdr*>(static_cast<void*>(bytes));
  request->nlmsg_len = kNlmsgHeaderSize;
  request->nlmsg_type = GENL_ID_CTRL;
  request->nlmsg_flags = NLM_F_REQUEST;
  request->nlmsg_seq = 1;
  request->nlmsg_pid = static_cast<uint32_t>(getpid());
  // The fixed request always fits.
  AddGenlHeader(request, kBufferSize, CTRL_CMD_GETFAMILY, 1);
  AddAttribute(request, kBufferSize, CTRL_ATTR_FAMILY_NAME, family_name);

  const ssize_t sent = sendto(socket_fd, bytes, request->nlmsg_len, 0, nullptr, 0);
  if (sent < 0 || static_cast<size_t>(sent) != request->nlmsg_len) {
    const int error = errno;
    // The doubled blank is kept on purpose: log readers match the line as is.
    ky_loc_fw::log_error(kTag, "Failed to send GETFAMILY:  %d (%s)", error, strerror(error));
    return false;
  }

  memset(bytes, 0, kBufferSize);
  const ssize_t n = recvfrom(socket_fd, bytes, kBufferSize, 0, nullptr, nullptr);
  if (n < 0) {
    const int error = errno;
    ky_loc_fw::log_error(kTag, "Failed to recv GETFAMILY response: %d (%s)", error,
                         strerror(error));
    return false;
  }

  bool found_family = false;
  bool found_group = false;
  ReadFamilyReply(bytes, static_cast<size_t>(n), group_name, found_family, found_group);
  ky_loc_fw::log_info(kTag, "family %d group %d", family_id, static_cast<int>(mlme_group_id));
  return found_family && found_group;
}

void DeauthDetector::ReadFamilyReply(const uint8_t* reply, size_t n, const char* group_name,
                                     bool& found_family, bool& found_group) {
  if (BadLength(reply, n)) {
    ky_loc_fw::log_warning(kTag, "Bad Netlink message length");
    return;
  }
  // An error reply (or anything but the controller's answer) holds nothing.
  if (n - kNlmsgHeaderSize < kGenlHeaderSize || HeaderOf(reply)->nlmsg_type != GENL_ID_CTRL) {
    return;
  }

  // Only the first message counts, and its attributes are taken to reach to
  // the end of the datagram rather than to its nlmsg_len; kept on purpose.
  const size_t offset = kNlmsgHeaderSize + kGenlHeaderSize;
  AttrParser parser = AttrParser::Over(reply + offset, n - offset);
  while (!(found_family && found_group)) {
    const nlattr* attr = parser.Next();
    if (attr == nullptr) break;
    if (attr->nla_type == CTRL_ATTR_FAMILY_ID) {
      found_family = ReadAttribute(attr, &family_id, sizeof family_id);
    } else if (attr->nla_type == CTRL_ATTR_MCAST_GROUPS) {
      found_group = FindGroup(attr, group_name);
    }
  }
}

bool DeauthDetector::FindGroup(const nlattr* groups_attr, const char* group_name) {
  AttrParser groups = AttrParser::Nested(groups_attr);
  // Each entry is one group; its own type is an index and not looked at.
  while (const nlattr* group = groups.Next()) {
    AttrParser fields = AttrParser::Nested(group);
    const nlattr* id = nullptr;
    const nlattr* name = nullptr;
    while (const nlattr* field = fields.Next()) {
      if (field->nla_type == CTRL_ATTR_MCAST_GRP_ID && field->nla_len >= kNlattrHeaderSize + 4) {
        id = field;
      } else if (field->nla_type == CTRL_ATTR_MCAST_GRP_NAME && CheckStringAttr(field)) {
        name = field;
      } else {
        continue;
      }
      if (id == nullptr || name == nullptr) continue;
      // The name is known to be terminated; the bound is only an upper limit.
      const char* payload = static_cast<const char*>(static_cast<const void*>(AttrAt(name, 4)));
      if (strncmp(group_name, payload, name->nla_len) != 0) break;
      ReadAttribute(id, &mlme_group_id, sizeof mlme_group_id);
      return true;
    }
  }
  return false;
}

void DeauthDetector::Listen() {
  Buffer buffer = AllocateBuffer();
  if (!buffer) return;
  uint8_t* bytes = buffer.get();
  pollfd fds[2] = {{socket_fd, POLLIN, 0}, {stop_pipe[0], POLLIN, 0}};
  for (;;) {
    memset(bytes, 0, kBufferSize);
    poll(fds, 2, -1);
    // The socket goes first: an event pending with a stop request is still
    // delivered, and the loop ends on the next pass.
    if (fds[0].revents & POLLIN) {
      const ssize_t n = recvfrom(socket_fd, bytes, kBufferSize, 0, nullptr, nullptr);
      if (n >= 1) HandleDatagram(bytes, static_cast<size_t>(n));
    } else if (fds[1].revents & POLLIN) {
      break;  // the stop byte is never read
    }
  }
}

void DeauthDetector::HandleDatagram(const uint8_t* datagram, size_t n) {
  if (BadLength(datagram, n)) {
    ky_loc_fw::log_warning(kTag, "Bad Netlink message length");
    return;
  }
  if (n - kNlmsgHeaderSize < kGenlHeaderSize) return;
  if (HeaderOf(datagram)->nlmsg_type != family_id) return;
  // Deauthenticate and every other nl80211 event are not acted on.
  if (datagram[kNlmsgHeaderSize] != NL80211_CMD_DISCONNECT) return;

  // As for the controller reply, the attributes run to the datagram's end.
  const size_t offset = kNlmsgHeaderSize + kGenlHeaderSize;
  AttrParser parser = AttrParser::Over(datagram + offset, n - offset);
  ParseDisconnect(parser);
}

void DeauthDetector::ParseDisconnect(AttrParser& parser) {
  uint32_t wiphy = 0;
  uint32_t ifindex = 0;
  uint16_t reason = 0;
  bool by_ap = false;
  while (const nlattr* attr = parser.Next()) {
    if (attr->nla_len < kNlattrHeaderSize) continue;
    // A repeated attribute overwrites; a too-short one leaves the value.
    switch (attr->nla_type) {
      case NL80211_ATTR_WIPHY:
        ReadAttribute(attr, &wiphy, sizeof wiphy);
        break;
      case NL80211_ATTR_IFINDEX:
        ReadAttribute(attr, &ifindex, sizeof ifindex);
        break;
      case NL80211_ATTR_REASON_CODE:
        ReadAttribute(attr, &reason, sizeof reason);
        break;
      case NL80211_ATTR_DISCONNECTED_BY_AP:
        by_ap = true;
        break;
      default:
        break;
    }
  }
  OnDeauth(static_cast<int>(wiphy), static_cast<int>(ifindex), reason, by_ap);
}

bool DeauthDetector::StartListenerForTesting(int fd, uint16_t family) {
  socket_fd = fd;
  family_id = family;
  if (pipe(stop_pipe) != 0) {
    close(socket_fd);
    socket_fd = -1;
    return false;
  }
  listener_thread = std::thread(&DeauthDetector::Listen, this);
  return true;
}
