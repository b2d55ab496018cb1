// MAC addresses as text ("aa:bb:cc:dd:ee:ff") and in the wire form that
// splits the 48-bit address into two 24-bit halves.
#ifndef TESK_CLIENT_TESKCLIENT_MAC_ADDRESS_H_
#define TESK_CLIENT_TESKCLIENT_MAC_ADDRESS_H_

#include <array>
#include <cstdint>
#include <string>

#include <tesk/scan_records.h>

namespace teskclient {

// Octets in transmission order: octets[0..2] are the OUI.
using MacAddress = std::array<uint8_t, 6>;

// Accepts six hex pairs separated by ':' or '-'; false on anything else.
bool ParseMacAddress(const std::string& text, MacAddress* out);
std::string FormatMacAddress(const MacAddress& mac);

// hi24 holds the first three octets, lo24 the last three; bits above 24 are
// ignored when reading, as they carry no address.
WifiMacAddress ToWire(const MacAddress& mac);
MacAddress FromWire(uint32_t lo24, uint32_t hi24);
inline MacAddress FromWire(const WifiMacAddress& wire) {
  return FromWire(wire.lo24, wire.hi24);
}

}  // namespace teskclient

#endif  // TESK_CLIENT_TESKCLIENT_MAC_ADDRESS_H_
