// Walking a sequence of 802.11 information elements held as raw bytes.
#ifndef VELA_CLIENT_INFORMATION_ELEMENTS_H_
#define VELA_CLIENT_INFORMATION_ELEMENTS_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ky_loc_fw {
namespace vela_sim {

struct ElementRef {
  uint8_t id;
  uint8_t len;
  size_t offset;  // of the data, in the sequence
};

// Splits bytes into elements; false when the last one runs past the end.
bool SplitElements(const std::vector<uint8_t>& bytes, std::vector<ElementRef>* out);

// The first element with id (and, for 221, that starts with oui_type when
// given); null when absent.
const ElementRef* FindElement(const std::vector<ElementRef>& elements, uint8_t id);
const ElementRef* FindVendorElement(const std::vector<ElementRef>& elements,
                                    const std::vector<uint8_t>& bytes, const uint8_t* prefix,
                                    size_t prefix_len);

}  // namespace vela_sim
}  // namespace ky_loc_fw

#endif  // VELA_CLIENT_INFORMATION_ELEMENTS_H_
