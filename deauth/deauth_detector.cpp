#include "deauth/deauth_detector.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "deauth/disconnect_event.h"
#include "deauth/errno_text.h"
#include "deauth/family_lookup.h"
#include "ky_loc_fw/log.h"

namespace {

constexpr const char* kTag = "tesk";

int OpenGenericNetlink() {
  return socket(AF_NETLINK, SOCK_RAW, NETLINK_GENERIC);
}

int JoinGroup(int fd, uint32_t group) {
  return setsockopt(fd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group);
}

}  // namespace

const NetlinkAccess kKernelNetlink = {OpenGenericNetlink, JoinGroup};

DeauthDetector::~DeauthDetector() {
  if (socket_fd < 0) return;
  Stop();
  close(socket_fd);
  close(stop_pipe[0]);
  close(stop_pipe[1]);
  // A thread left joinable by a failed stop ends the process when it is
  // destroyed right after this; kept so, there is no detaching.
}

void DeauthDetector::Stop() {
  if (socket_fd < 0 || !listener_thread.joinable()) return;
  if (write(stop_pipe[1], "x", 1) != 1) {
    const int error = errno;
    ky_loc_fw::log_error(kTag, "Failed to stop listener thread %d (%s)", error,
                         ErrnoText(error).c_str());
  } else {
    listener_thread.join();
  }
}

bool DeauthDetector::Initialize(const NetlinkAccess& netlink) {
  if (socket_fd >= 0) return true;

  socket_fd = netlink.open_socket();
  if (socket_fd < 0) {
    const int error = errno;
    ky_loc_fw::log_error(kTag, "Failed to open netlink socket: %d (%s)", error,
                         ErrnoText(error).c_str());
    return false;
  }

  if (QueryMlmeInfo()) {
    if (netlink.join_group(socket_fd, mlme_group_id) != 0) {
      const int error = errno;
      ky_loc_fw::log_error(kTag, "setsockopt failed: %d (%s)", error, ErrnoText(error).c_str());
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
  FamilyLookup lookup;
  lookup.family_id = family_id;
  lookup.group_id = mlme_group_id;
  const bool found = QueryFamily(socket_fd, "nl80211", "mlme", lookup);
  family_id = lookup.family_id;
  mlme_group_id = lookup.group_id;
  return found;
}

void DeauthDetector::Listen() {
  NetlinkBuffer buffer = AllocateNetlinkBuffer();
  if (!buffer) return;
  uint8_t* bytes = buffer.get();
  pollfd fds[2] = {{socket_fd, POLLIN, 0}, {stop_pipe[0], POLLIN, 0}};
  for (;;) {
    memset(bytes, 0, kNetlinkBufferSize);
    poll(fds, 2, -1);
    // The socket goes first: an event pending with a stop request is still
    // delivered, and the loop ends on the next pass.
    if (fds[0].revents & POLLIN) {
      const ssize_t n = recvfrom(socket_fd, bytes, kNetlinkBufferSize, 0, nullptr, nullptr);
      if (n >= 1) HandleDatagram(bytes, static_cast<size_t>(n));
    } else if (fds[1].revents & POLLIN) {
      break;  // the stop byte is never read
    }
  }
}

void DeauthDetector::HandleDatagram(const uint8_t* datagram, size_t n) {
  AttrParser attributes;
  switch (CheckEventDatagram(datagram, n, family_id, &attributes)) {
    case EventDatagram::kBadLength:
      ky_loc_fw::log_warning(kTag, "Bad Netlink message length");
      break;
    case EventDatagram::kDisconnect:
      ParseDisconnect(attributes);
      break;
    case EventDatagram::kIgnored:
      break;
  }
}

void DeauthDetector::ParseDisconnect(AttrParser& parser) {
  const Disconnect event = ReadDisconnect(parser);
  OnDeauth(static_cast<int>(event.wiphy), static_cast<int>(event.ifindex), event.reason,
           event.by_ap);
}
