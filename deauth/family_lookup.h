// Looking a generic netlink family and one of its multicast groups up by
// name through the controller: one GETFAMILY request and its reply.
#ifndef TESK_DEAUTH_FAMILY_LOOKUP_H_
#define TESK_DEAUTH_FAMILY_LOOKUP_H_

#include <cstddef>
#include <cstdint>

// What a lookup found. Each id is written only when found, so the values a
// caller starts with show what was not.
struct FamilyLookup {
  uint16_t family_id = 0xFFFF;
  uint32_t group_id = 0xFFFFFFFF;
  bool found_family = false;
  bool found_group = false;
};

// Walks the first message of one controller reply datagram of n bytes.
// False when the datagram fails netlink's length check (nothing is read);
// an error reply or any other message holds nothing and is true.
bool ReadFamilyReply(const uint8_t* reply, size_t n, const char* group_name, FamilyLookup& lookup);

// Sends the request for family_name on the generic netlink socket fd and
// reads the reply into lookup; failures are logged under "tesk". True when
// both the family and group_name were found.
bool QueryFamily(int fd, const char* family_name, const char* group_name, FamilyLookup& lookup);

#endif  // TESK_DEAUTH_FAMILY_LOOKUP_H_
