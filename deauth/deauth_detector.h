// Watches nl80211's "mlme" multicast group for disconnect events and turns
// each into a call of OnDeauth on a listener thread of its own.
#ifndef TESK_DEAUTH_DEAUTH_DETECTOR_H_
#define TESK_DEAUTH_DEAUTH_DETECTOR_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <thread>

#include "deauth/genl_message.h"

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
  bool Initialize();

  // Resolves family_id and mlme_group_id through the generic netlink
  // controller; true only when both were found.
  bool QueryMlmeInfo();

  // The listener thread's body: reads events until a byte arrives on the
  // stop pipe.
  void Listen();

  // Reads one disconnect event's attributes and calls OnDeauth.
  void ParseDisconnect(AttrParser& parser);

  // Test seam: listens on fd (taken over, closed by the destructor) as if it
  // were the joined netlink socket of family, without any lookup.
  bool StartListenerForTesting(int fd, uint16_t family);

 protected:
  // QueryMlmeInfo for any family and multicast group: one GETFAMILY request
  // on socket_fd and its reply. The group's id goes to mlme_group_id.
  bool QueryFamilyGroup(const char* family_name, const char* group_name);

  // Walks the first message of one controller reply datagram of n bytes.
  void ReadFamilyReply(const uint8_t* reply, size_t n, const char* group_name, bool& found_family,
                       bool& found_group);

  // Handles one received datagram of n bytes.
  void HandleDatagram(const uint8_t* datagram, size_t n);

  int socket_fd = -1;
  int stop_pipe[2] = {-1, -1};  // read end, write end
  uint16_t family_id = 0xFFFF;
  uint32_t mlme_group_id = 0xFFFFFFFF;
  std::thread listener_thread;

 private:
  // Finds group_name in a CTRL_ATTR_MCAST_GROUPS attribute and stores its id.
  bool FindGroup(const nlattr* groups_attr, const char* group_name);
};

#endif  // TESK_DEAUTH_DEAUTH_DETECTOR_H_
