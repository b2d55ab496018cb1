#include "ky_loc_fw/vela_ssid.h"

#include <cstring>

namespace ky_loc_fw {

VELASsid::VELASsid() : bytes{}, length(0), valid(false) {}

void VELASsid::setSSID(const unsigned char* name, int nameLength) {
  std::memset(bytes, 0, sizeof(bytes));
  length = 0;
  valid = false;
  if (nameLength < 0 || nameLength > kMaxLength) return;
  if (name == nullptr && nameLength != 0) return;
  if (nameLength != 0) std::memcpy(bytes, name, static_cast<size_t>(nameLength));
  length = nameLength;
  valid = true;
}

bool VELASsid::isSSIDValid() const {
  return valid;
}

int VELASsid::getSSID(unsigned char* buf, int* len) const {
  // The length check also guards states set up by the test access.
  if (!valid || buf == nullptr || len == nullptr || length < 0 || length > kMaxLength) return -1;
  std::memcpy(buf, bytes, static_cast<size_t>(length));
  *len = length;
  return 0;
}

}  // namespace ky_loc_fw
