// Builders of vela_test_control.h: responses and measurements with chosen
// values.
#include <cstring>
#include <type_traits>

#include "ky_loc_fw/vela_test_control.h"

namespace ky_loc_fw {
namespace vela_test {

namespace {

// VELASsid's stored state, field for field; the interface header keeps its
// fields private.
struct SsidState {
  uint8_t bytes[VELASsid::kMaxLength];
  int32_t length;
  bool valid;
};
static_assert(sizeof(SsidState) == sizeof(VELASsid), "VELASsid's fields");
static_assert(std::is_trivially_copyable<VELASsid>::value, "VELASsid is copied bytewise");

}  // namespace

void SsidAccess::Set(VELASsid* ssid, const unsigned char* bytes, int length, bool valid) {
  SsidState state{};
  if (bytes != nullptr && length > 0) {
    std::memcpy(state.bytes, bytes,
                static_cast<size_t>(length < VELASsid::kMaxLength ? length : VELASsid::kMaxLength));
  }
  state.length = length;
  state.valid = valid;
  std::memcpy(static_cast<void*>(ssid), &state, sizeof state);
}

VELAMacAddress MakeMac(uint32_t hi24, uint32_t lo24) {
  VELAMacAddress mac;
  mac.setMac(static_cast<int>(hi24), static_cast<int>(lo24));
  return mac;
}

std::string SsidBytes(const VELASsid& ssid) {
  unsigned char buf[VELASsid::kMaxLength];
  int len = 0;
  if (ssid.getSSID(buf, &len) != 0) return std::string();
  return std::string(reinterpret_cast<const char*>(buf), static_cast<size_t>(len));
}

}  // namespace vela_test
}  // namespace ky_loc_fw
