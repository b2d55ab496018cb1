// nl80211 disconnect events as the kernel multicasts them on "mlme".
#ifndef TESK_DEAUTH_DISCONNECT_EVENT_H_
#define TESK_DEAUTH_DISCONNECT_EVENT_H_

#include <cstddef>
#include <cstdint>

#include "deauth/genl_message.h"

enum class EventDatagram {
  kBadLength,   // fails netlink's length check
  kIgnored,     // another family, another command, or no generic header
  kDisconnect,  // a disconnect event of the family asked for
};

// Classifies one datagram of n bytes; for a disconnect, *attributes is set
// to its attribute run, which reaches to the datagram's end.
EventDatagram CheckEventDatagram(const uint8_t* datagram, size_t n, uint16_t family_id,
                                 AttrParser* attributes);

// A disconnect event's values; those it did not carry stay 0 (false).
struct Disconnect {
  uint32_t wiphy = 0;
  uint32_t ifindex = 0;
  uint16_t reason = 0;
  bool by_ap = false;
};

// Reads the attributes of one disconnect event. A repeated attribute
// overwrites the earlier value; a too-short one leaves it as it was.
Disconnect ReadDisconnect(AttrParser& parser);

#endif  // TESK_DEAUTH_DISCONNECT_EVENT_H_
