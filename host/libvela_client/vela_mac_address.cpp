#include "ky_loc_fw/vela_mac_address.h"

namespace ky_loc_fw {

namespace {
constexpr uint32_t kMask24 = 0xFFFFFF;
}

VELAMacAddress::VELAMacAddress() : lo24(0), hi24(0) {}

VELAMacAddress::VELAMacAddress(const VELAMacAddress& other) = default;

VELAMacAddress& VELAMacAddress::operator=(const VELAMacAddress& other) = default;

void VELAMacAddress::setMac(int hi, int lo) {
  hi24 = static_cast<uint32_t>(hi) & kMask24;
  lo24 = static_cast<uint32_t>(lo) & kMask24;
}

}  // namespace ky_loc_fw
