// An 802.11 network name: up to 32 arbitrary bytes (not necessarily text,
// never terminated).
#ifndef KY_LOC_FW_VELA_SSID_H_
#define KY_LOC_FW_VELA_SSID_H_

#include <cstdint>

namespace ky_loc_fw {

class VELASsid {
 public:
  static constexpr int kMaxLength = 32;

  VELASsid();  // invalid, empty

  // Stores length bytes. A length of 0 to 32 with non-null bytes (bytes may be
  // null when length is 0) makes the SSID valid; a length of 0 is the empty
  // name that hidden networks advertise. Anything else leaves it invalid and
  // empty.
  void setSSID(const unsigned char* bytes, int length);

  bool isSSIDValid() const;

  // Copies the name into buf, which must have room for 32 bytes, and its
  // length into *len. Returns 0 on success; -1 when the SSID is not valid or
  // an argument is null, with nothing written.
  int getSSID(unsigned char* buf, int* len) const;

 private:
  uint8_t bytes[kMaxLength];
  int32_t length;
  bool valid;
};

}  // namespace ky_loc_fw

#endif  // KY_LOC_FW_VELA_SSID_H_
