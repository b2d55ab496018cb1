// Reads 802.11 information elements (identifier, length, data) out of a
// byte range, as the daemon pools them for each beacon, and summarises the
// few that a scan listing shows. Every read is bounded by the range.
#ifndef TESK_CLIENT_TESKCLIENT_INFORMATION_ELEMENTS_H_
#define TESK_CLIENT_TESKCLIENT_INFORMATION_ELEMENTS_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace teskclient {

constexpr uint8_t kIeSsid = 0;
constexpr uint8_t kIeDsParameterSet = 3;
constexpr uint8_t kIeRsn = 48;
constexpr uint8_t kIeHtOperation = 61;
constexpr uint8_t kIeVendor = 221;

struct InformationElement {
  uint8_t id = 0;
  uint8_t length = 0;
  const uint8_t* data = nullptr;  // `length` bytes inside the walked range
};

// Walks the elements of [data, data + size) in order. Next() stops at the
// end, and at an element whose data would run past the end; truncated()
// then tells the two apart.
class IeWalker {
 public:
  IeWalker(const uint8_t* data, size_t size) : data_(data), size_(data == nullptr ? 0 : size) {}

  bool Next(InformationElement* element);
  bool truncated() const { return truncated_; }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
  bool truncated_ = false;
};

std::vector<InformationElement> ParseIes(const uint8_t* data, size_t size);

using Oui = std::array<uint8_t, 3>;

// What a listing shows of a beacon's elements.
struct IeSummary {
  bool has_ssid = false;
  std::vector<uint8_t> ssid;
  int channel = -1;              // DS parameter set, else HT operation's primary channel
  std::string security;          // e.g. "RSN:PSK,SAE/CCMP" or "WPA:PSK/TKIP"; "open" if neither
  std::vector<Oui> vendor_ouis;  // distinct, in order of appearance
  bool truncated = false;
};

IeSummary SummariseIes(const uint8_t* data, size_t size);

// The RSN element's (or WPA vendor element's) suites, read with bounds
// checks; a short element yields what could be read and `complete` false.
struct SecuritySuites {
  std::string group;
  std::vector<std::string> pairwise;
  std::vector<std::string> akms;
  bool complete = false;
};

SecuritySuites ParseRsnBody(const uint8_t* data, size_t size);
std::string FormatOui(const Oui& oui);

}  // namespace teskclient

#endif  // TESK_CLIENT_TESKCLIENT_INFORMATION_ELEMENTS_H_
