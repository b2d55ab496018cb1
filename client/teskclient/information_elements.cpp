#include "teskclient/information_elements.h"

#include <algorithm>
#include <cstdio>

namespace teskclient {
namespace {

constexpr Oui kIeee80211Oui{0x00, 0x0F, 0xAC};
constexpr Oui kMicrosoftOui{0x00, 0x50, 0xF2};
constexpr uint8_t kWpaVendorType = 1;

// A bounded cursor over an element's body.
class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  bool Read16(uint16_t* value) {
    if (size_ - at_ < 2) return false;
    *value = static_cast<uint16_t>(data_[at_] | data_[at_ + 1] << 8);
    at_ += 2;
    return true;
  }
  bool ReadSuite(const uint8_t** suite) {
    if (size_ - at_ < 4) return false;
    *suite = data_ + at_;
    at_ += 4;
    return true;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

std::string SuiteName(const uint8_t* suite, bool akm) {
  const Oui oui{suite[0], suite[1], suite[2]};
  const uint8_t type = suite[3];
  if (oui == kIeee80211Oui || oui == kMicrosoftOui) {
    if (akm) {
      switch (type) {
        case 1:
          return "802.1X";
        case 2:
          return "PSK";
        case 3:
          return "FT-802.1X";
        case 4:
          return "FT-PSK";
        case 5:
          return "802.1X-SHA256";
        case 6:
          return "PSK-SHA256";
        case 8:
          return "SAE";
        case 9:
          return "FT-SAE";
        case 12:
          return "802.1X-SUITE-B-192";
        case 18:
          return "OWE";
        case 24:
          return "SAE-EXT-KEY";
        default:
          break;
      }
    } else {
      switch (type) {
        case 0:
          return "GROUP";
        case 1:
          return "WEP-40";
        case 2:
          return "TKIP";
        case 4:
          return "CCMP";
        case 5:
          return "WEP-104";
        case 6:
          return "BIP-CMAC-128";
        case 8:
          return "GCMP";
        case 9:
          return "GCMP-256";
        case 10:
          return "CCMP-256";
        default:
          break;
      }
    }
  }
  char text[16];
  snprintf(text, sizeof text, "%s-%u", FormatOui(oui).c_str(), type);
  return text;
}

bool ReadSuiteList(Reader* reader, bool akm, std::vector<std::string>* names) {
  uint16_t count;
  if (!reader->Read16(&count)) return false;
  for (uint16_t i = 0; i < count; ++i) {
    const uint8_t* suite;
    if (!reader->ReadSuite(&suite)) return false;
    names->push_back(SuiteName(suite, akm));
  }
  return true;
}

std::string Join(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    if (!text.empty()) text += ',';
    text += name;
  }
  return text;
}

std::string FormatSuites(const char* kind, const SecuritySuites& suites) {
  std::string text = kind;
  text += ':';
  text += suites.akms.empty() ? "?" : Join(suites.akms);
  text += '/';
  text +=
      suites.pairwise.empty() ? (suites.group.empty() ? "?" : suites.group) : Join(suites.pairwise);
  return text;
}

}  // namespace

bool IeWalker::Next(InformationElement* element) {
  if (truncated_ || size_ - at_ < 2) {
    // One stray byte after the last element is as truncated as a short body.
    if (size_ - at_ == 1) truncated_ = true;
    return false;
  }
  const uint8_t id = data_[at_];
  const uint8_t length = data_[at_ + 1];
  if (size_ - at_ - 2 < length) {
    truncated_ = true;
    return false;
  }
  element->id = id;
  element->length = length;
  element->data = data_ + at_ + 2;
  at_ += 2 + static_cast<size_t>(length);
  return true;
}

std::vector<InformationElement> ParseIes(const uint8_t* data, size_t size) {
  std::vector<InformationElement> elements;
  IeWalker walker(data, size);
  InformationElement element;
  while (walker.Next(&element)) elements.push_back(element);
  return elements;
}

SecuritySuites ParseRsnBody(const uint8_t* data, size_t size) {
  SecuritySuites suites;
  Reader reader(data, size);
  uint16_t version;
  const uint8_t* group;
  if (!reader.Read16(&version) || !reader.ReadSuite(&group)) return suites;
  suites.group = SuiteName(group, false);
  if (!ReadSuiteList(&reader, false, &suites.pairwise)) return suites;
  if (!ReadSuiteList(&reader, true, &suites.akms)) return suites;
  suites.complete = true;
  return suites;
}

IeSummary SummariseIes(const uint8_t* data, size_t size) {
  IeSummary summary;
  std::string rsn;
  std::string wpa;
  int ht_channel = -1;
  IeWalker walker(data, size);
  InformationElement element;
  while (walker.Next(&element)) {
    switch (element.id) {
      case kIeSsid:
        if (!summary.has_ssid) {
          summary.has_ssid = true;
          summary.ssid.assign(element.data, element.data + element.length);
        }
        break;
      case kIeDsParameterSet:
        if (element.length >= 1 && summary.channel < 0) summary.channel = element.data[0];
        break;
      case kIeHtOperation:
        if (element.length >= 1 && ht_channel < 0) ht_channel = element.data[0];
        break;
      case kIeRsn:
        if (rsn.empty()) rsn = FormatSuites("RSN", ParseRsnBody(element.data, element.length));
        break;
      case kIeVendor: {
        if (element.length < 3) break;
        const Oui oui{element.data[0], element.data[1], element.data[2]};
        if (std::find(summary.vendor_ouis.begin(), summary.vendor_ouis.end(), oui) ==
            summary.vendor_ouis.end()) {
          summary.vendor_ouis.push_back(oui);
        }
        if (oui == kMicrosoftOui && element.length >= 4 && element.data[3] == kWpaVendorType &&
            wpa.empty()) {
          wpa = FormatSuites("WPA", ParseRsnBody(element.data + 4, element.length - 4u));
        }
        break;
      }
      default:
        break;
    }
  }
  summary.truncated = walker.truncated();
  if (summary.channel < 0) summary.channel = ht_channel;
  if (!rsn.empty() && !wpa.empty()) {
    summary.security = rsn + " " + wpa;
  } else if (!rsn.empty()) {
    summary.security = rsn;
  } else if (!wpa.empty()) {
    summary.security = wpa;
  } else if (size != 0 && data != nullptr) {
    summary.security = "none";
  }
  return summary;
}

std::string FormatOui(const Oui& oui) {
  char text[9];
  snprintf(text, sizeof text, "%02x:%02x:%02x", oui[0], oui[1], oui[2]);
  return text;
}

}  // namespace teskclient
