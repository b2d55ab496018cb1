// A 48-bit IEEE MAC address, held as two 24-bit halves the way the location
// service reports and takes addresses.
#ifndef KY_LOC_FW_VELA_MAC_ADDRESS_H_
#define KY_LOC_FW_VELA_MAC_ADDRESS_H_

#include <cstdint>

namespace ky_loc_fw {

class VELAMacAddress {
 public:
  VELAMacAddress();  // 00:00:00:00:00:00
  VELAMacAddress(const VELAMacAddress& other);
  VELAMacAddress& operator=(const VELAMacAddress& other);

  // hi24 holds the first three octets (the OUI of a global address), lo24 the
  // last three; bits above 24 are dropped.
  void setMac(int hi24, int lo24);

  uint32_t getLo24() const { return lo24; }
  uint32_t getHi24() const { return hi24; }

  bool operator==(const VELAMacAddress& other) const {
    return lo24 == other.lo24 && hi24 == other.hi24;
  }
  bool operator!=(const VELAMacAddress& other) const { return !(*this == other); }

 private:
  uint32_t lo24;
  uint32_t hi24;
};

}  // namespace ky_loc_fw

#endif  // KY_LOC_FW_VELA_MAC_ADDRESS_H_
