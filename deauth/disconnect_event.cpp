#include "deauth/disconnect_event.h"

#include <linux/nl80211.h>

EventDatagram CheckEventDatagram(const uint8_t* datagram, size_t n, uint16_t family_id,
                                 AttrParser* attributes) {
  if (BadNetlinkLength(datagram, n)) return EventDatagram::kBadLength;
  if (n - kNlmsgHeaderSize < kGenlHeaderSize) return EventDatagram::kIgnored;
  if (NetlinkHeader(datagram)->nlmsg_type != family_id) return EventDatagram::kIgnored;
  // Deauthenticate and every other nl80211 event are not acted on.
  if (datagram[kNlmsgHeaderSize] != NL80211_CMD_DISCONNECT) return EventDatagram::kIgnored;

  // As for the controller reply, the attributes run to the datagram's end.
  const size_t offset = kNlmsgHeaderSize + kGenlHeaderSize;
  *attributes = AttrParser::Over(datagram + offset, n - offset);
  return EventDatagram::kDisconnect;
}

Disconnect ReadDisconnect(AttrParser& parser) {
  Disconnect event;
  while (const nlattr* attr = parser.Next()) {
    if (attr->nla_len < kNlattrHeaderSize) continue;
    switch (attr->nla_type) {
      case NL80211_ATTR_WIPHY:
        ReadAttribute(attr, &event.wiphy, sizeof event.wiphy);
        break;
      case NL80211_ATTR_IFINDEX:
        ReadAttribute(attr, &event.ifindex, sizeof event.ifindex);
        break;
      case NL80211_ATTR_REASON_CODE:
        ReadAttribute(attr, &event.reason, sizeof event.reason);
        break;
      case NL80211_ATTR_DISCONNECTED_BY_AP:
        event.by_ap = true;
        break;
      default:
        break;
    }
  }
  return event;
}
