// The record delivered to a deauth monitor callback for each disconnect
// event: one input buffer of exactly 16 bytes, host byte order, no padding.
#ifndef TESK_DEAUTH_EVENT_H_
#define TESK_DEAUTH_EVENT_H_

#include <cstddef>
#include <cstdint>
#include <type_traits>

struct DeauthEvent {
  int32_t wiphy;    // nl80211 radio index; 0 when the event did not carry it
  int32_t ifindex;  // network interface index; 0 when absent
  int32_t reason;   // 802.11 reason code, 0 to 65535; 0 when absent
  uint32_t by_ap;   // 1 when the access point ended the association, else 0
};

static_assert(sizeof(DeauthEvent) == 16, "DeauthEvent is a 16-byte wire record");
static_assert(offsetof(DeauthEvent, wiphy) == 0, "DeauthEvent layout");
static_assert(offsetof(DeauthEvent, ifindex) == 4, "DeauthEvent layout");
static_assert(offsetof(DeauthEvent, reason) == 8, "DeauthEvent layout");
static_assert(offsetof(DeauthEvent, by_ap) == 12, "DeauthEvent layout");
static_assert(std::is_trivially_copyable<DeauthEvent>::value, "DeauthEvent is copied as bytes");

#endif  // TESK_DEAUTH_EVENT_H_
