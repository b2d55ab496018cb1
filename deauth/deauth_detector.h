// Watches nl80211's "mlme" multicast group for disconnect events and turns
// each into a call of OnDeauth on a listener thread of its own.
#ifndef TESK_DEAUTH_DEAUTH_DETECTOR_H_
#define TESK_DEAUTH_DEAUTH_DETECTOR_H_

#include <cstdint>
#include <thread>

#include "deauth/genl_message.h"

// How the detector reaches the kernel: opening the generic netlink socket
// and joining a multicast group on it. Tests put a socket pair in its place.
struct NetlinkAccess {
  int (*open_socket)();                       // a descriptor, or -1 with errno set
  int (*join_group)(int fd, uint32_t group);  // 0, or nonzero with errno set
};

// socket(AF_NETLINK, SOCK_RAW, NETLINK_GENERIC) and NETLINK_ADD_MEMBERSHIP.
extern const NetlinkAccess kKernelNetlink;

class DeauthDetector {
 public:
  DeauthDetector() = default;
  // Stops the listener thread and closes the socket and the stop pipe.
  virtual ~DeauthDetector();
  DeauthDetector(const DeauthDetector&) = delete;
  DeauthDetector& operator=(const DeauthDetector&) = delete;

  // Called on the listener thread for every disconnect event; fields the
  // event did not carry are 0 (false).
  virtual void OnDeauth(int wiphy, int ifindex, int reason, bool by_ap) = 0;

  // Opens the netlink socket, resolves nl80211 and its "mlme" group, joins
  // the group and starts the listener thread. True when listening (also when
  // already listening); on false the socket is closed again.
  bool Initialize() { return Initialize(kKernelNetlink); }
  bool Initialize(const NetlinkAccess& netlink);

  // Resolves family_id and mlme_group_id through the generic netlink
  // controller; true only when both were found.
  bool QueryMlmeInfo();

  // The listener thread's body: reads events until a byte arrives on the
  // stop pipe.
  void Listen();

  // Reads one disconnect event's attributes and calls OnDeauth.
  void ParseDisconnect(AttrParser& parser);

  // Writes the stop byte and waits for the listener thread to end; the
  // destructor does this first. A derived class whose OnDeauth uses its own
  // members calls it before they go.
  void Stop();

 private:
  // Handles one received datagram of n bytes.
  void HandleDatagram(const uint8_t* datagram, size_t n);

  int socket_fd = -1;
  int stop_pipe[2] = {-1, -1};  // read end, write end
  uint16_t family_id = 0xFFFF;
  uint32_t mlme_group_id = 0xFFFFFFFF;
  std::thread listener_thread;
};

#endif  // TESK_DEAUTH_DEAUTH_DETECTOR_H_
