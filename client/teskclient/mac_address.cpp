#include "teskclient/mac_address.h"

#include <cstdio>

namespace teskclient {
namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool ParseMacAddress(const std::string& text, MacAddress* out) {
  if (text.size() != 17) return false;
  MacAddress mac{};
  for (size_t i = 0; i < 6; ++i) {
    const size_t at = i * 3;
    const int high = HexValue(text[at]);
    const int low = HexValue(text[at + 1]);
    if (high < 0 || low < 0) return false;
    if (i < 5 && text[at + 2] != ':' && text[at + 2] != '-') return false;
    mac[i] = static_cast<uint8_t>(high << 4 | low);
  }
  *out = mac;
  return true;
}

std::string FormatMacAddress(const MacAddress& mac) {
  char text[18];
  snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
           mac[4], mac[5]);
  return text;
}

WifiMacAddress ToWire(const MacAddress& mac) {
  WifiMacAddress wire{};
  wire.hi24 = static_cast<uint32_t>(mac[0]) << 16 | static_cast<uint32_t>(mac[1]) << 8 | mac[2];
  wire.lo24 = static_cast<uint32_t>(mac[3]) << 16 | static_cast<uint32_t>(mac[4]) << 8 | mac[5];
  return wire;
}

MacAddress FromWire(uint32_t lo24, uint32_t hi24) {
  return MacAddress{static_cast<uint8_t>(hi24 >> 16), static_cast<uint8_t>(hi24 >> 8),
                    static_cast<uint8_t>(hi24),       static_cast<uint8_t>(lo24 >> 16),
                    static_cast<uint8_t>(lo24 >> 8),  static_cast<uint8_t>(lo24)};
}

}  // namespace teskclient
