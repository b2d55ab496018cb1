// Feeds arbitrary datagrams, exactly as received from the socket, to the
// controller-reply walk and to the disconnect-event parser.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "deauth/disconnect_event.h"
#include "deauth/family_lookup.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kNetlinkBufferSize) return 0;  // one receive never holds more
  // An exact-size heap copy, so that any read past the datagram is caught.
  uint8_t* datagram = static_cast<uint8_t*>(malloc(size == 0 ? 1 : size));
  if (size > 0) memcpy(datagram, data, size);

  FamilyLookup lookup;
  ReadFamilyReply(datagram, size, "mlme", lookup);
  // The datagram's own type as the family, so that every input can reach
  // the attribute walk of a disconnect event.
  uint16_t family = 0;
  if (size >= 6) memcpy(&family, datagram + 4, sizeof family);
  AttrParser attributes;
  if (CheckEventDatagram(datagram, size, family, &attributes) == EventDatagram::kDisconnect) {
    ReadDisconnect(attributes);
  }
  free(datagram);
  return 0;
}
