#include "information_elements.h"

#include <cstring>

namespace ky_loc_fw {
namespace vela_sim {

bool SplitElements(const std::vector<uint8_t>& bytes, std::vector<ElementRef>* out) {
  out->clear();
  size_t pos = 0;
  while (pos < bytes.size()) {
    if (bytes.size() - pos < 2) return false;
    const uint8_t id = bytes[pos];
    const uint8_t len = bytes[pos + 1];
    if (bytes.size() - pos - 2 < len) return false;
    out->push_back(ElementRef{id, len, pos + 2});
    pos += 2 + static_cast<size_t>(len);
  }
  return true;
}

const ElementRef* FindElement(const std::vector<ElementRef>& elements, uint8_t id) {
  for (const ElementRef& e : elements) {
    if (e.id == id) return &e;
  }
  return nullptr;
}

const ElementRef* FindVendorElement(const std::vector<ElementRef>& elements,
                                    const std::vector<uint8_t>& bytes, const uint8_t* prefix,
                                    size_t prefix_len) {
  for (const ElementRef& e : elements) {
    if (e.id == 221 && e.len >= prefix_len &&
        std::memcmp(bytes.data() + e.offset, prefix, prefix_len) == 0) {
      return &e;
    }
  }
  return nullptr;
}

}  // namespace vela_sim
}  // namespace ky_loc_fw
