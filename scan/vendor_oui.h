// The platform vendor's IEEE OUI: its long vendor-specific elements get the
// beacon byte appended when marshalled. Set at build time with the option
// TESK_VENDOR_OUI; the default lies in the reserved local range.
#ifndef TESK_SCAN_VENDOR_OUI_H_
#define TESK_SCAN_VENDOR_OUI_H_

#include <cstdint>

inline constexpr uint8_t kVendorOui[3] = {TESK_VENDOR_OUI_BYTES};

#endif  // TESK_SCAN_VENDOR_OUI_H_
