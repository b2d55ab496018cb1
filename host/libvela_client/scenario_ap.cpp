#include "scenario_ap.h"

#include <cstddef>

#include "distinct_measurements.h"
#include "information_elements.h"

namespace ky_loc_fw {
namespace vela_sim {

namespace {

constexpr size_t kOuiBytes = 3;

// An ap line while its words are read.
struct ApDraft {
  ScenarioAp ap;
  bool haveBssid = false;
  bool haveSsid = false;
  bool haveIes = false;
  std::vector<std::vector<uint8_t>> vendorPayloads;
};

struct NumericKey {
  const char* key;
  long long min;
  long long max;
  const char* error;
  int ScenarioAp::*field;
};

constexpr NumericKey kNumericKeys[] = {
    {"rssi", -127, 0, "rssi must be -127 to 0 dBm", &ScenarioAp::rssiDbm},
    {"capability", 0, 65535, "capability must be 0 to 0xffff", &ScenarioAp::capability},
    {"txpower", -10, 40, "txpower must be -10 to 40", &ScenarioAp::txPowerDbm},
};

bool ApplyFlag(const std::string& key, ScenarioAp* ap, Errors* errors) {
  if (key == "hidden") {
    ap->hidden = true;
  } else if (key == "cached") {
    ap->cached = true;
  } else if (key == "probe") {
    ap->probe = true;
  } else {
    return errors->Fail("unknown access point flag '" + key + "'");
  }
  return true;
}

bool ApplySsid(const std::string& value, ApDraft* draft, Errors* errors) {
  if (value.compare(0, 4, "hex:") == 0) {
    if (!ParseHex(value.substr(4), kMaxSsidBytes, &draft->ap.ssid)) {
      return errors->Fail("ssid=hex: needs an even number of hex digits, at most 32 bytes");
    }
  } else {
    if (value.size() > kMaxSsidBytes) return errors->Fail("ssid longer than 32 bytes");
    draft->ap.ssid.assign(value.begin(), value.end());
  }
  draft->haveSsid = true;
  return true;
}

bool ApplyNumber(const std::string& key, const std::string& value, ScenarioAp* ap, Errors* errors) {
  long long number;
  if (key == "channel") {
    if (!ParseInt(value, 1, 177, &number) ||
        (ap->frequencyMhz = ChannelFrequency(static_cast<unsigned>(number), &ap->band)) == 0) {
      return errors->Fail("bad channel '" + value + "' (1-14 or 32-177)");
    }
    ap->channel = static_cast<unsigned int>(number);
    return true;
  }
  if (key == "interval") {
    if (!ParseInt(value, 1, 65535, &number)) return errors->Fail("interval must be 1 to 65535");
    ap->intervalTu = static_cast<unsigned int>(number);
    return true;
  }
  for (const NumericKey& k : kNumericKeys) {
    if (key != k.key) continue;
    if (!ParseInt(value, k.min, k.max, &number)) return errors->Fail(k.error);
    ap->*k.field = static_cast<int>(number);
    return true;
  }
  return errors->Fail("unknown access point key '" + key + "'");
}

bool ApplySecurity(const std::string& value, ScenarioAp* ap, Errors* errors) {
  static const char* const kNames[] = {"open", "wep", "wpa", "wpa2", "wpa3"};
  for (int s = 0; s < 5; ++s) {
    if (value == kNames[s]) {
      ap->security = s;
      return true;
    }
  }
  return errors->Fail("security must be open, wep, wpa, wpa2 or wpa3");
}

bool ApplyIes(const std::string& value, ApDraft* draft, Errors* errors) {
  if (!ParseHex(value, kMaxIeBytes, &draft->ap.ies)) {
    return errors->Fail("ies needs an even number of hex digits, at most " +
                        std::to_string(kMaxIeBytes) + " bytes");
  }
  std::vector<ElementRef> elements;
  if (!SplitElements(draft->ap.ies, &elements)) {
    return errors->Fail("ies: the last element runs past the end");
  }
  draft->haveIes = true;
  return true;
}

bool ApplyValue(const std::string& key, const std::string& value, ApDraft* draft, Errors* errors) {
  if (key == "bssid") {
    if (!ParseMac(value, &draft->ap.bssid)) return errors->Fail("bad MAC address '" + value + "'");
    draft->haveBssid = true;
    return true;
  }
  if (key == "ssid") return ApplySsid(value, draft, errors);
  if (key == "security") return ApplySecurity(value, &draft->ap, errors);
  if (key == "ies") return ApplyIes(value, draft, errors);
  if (key == "vendor") {
    std::vector<uint8_t> payload;
    if (!ParseHex(value, 255 - kOuiBytes, &payload)) {
      return errors->Fail("vendor needs an even number of hex digits, at most 252 bytes");
    }
    draft->vendorPayloads.push_back(std::move(payload));
    return true;
  }
  return ApplyNumber(key, value, &draft->ap, errors);
}

std::vector<uint8_t> DefaultElements(const ScenarioAp& ap) {
  std::vector<uint8_t> ies;
  ies.push_back(0);
  ies.push_back(static_cast<uint8_t>(ap.ssid.size()));
  ies.insert(ies.end(), ap.ssid.begin(), ap.ssid.end());
  static const uint8_t kRates24[] = {1, 8, 0x82, 0x84, 0x8b, 0x96, 0x0c, 0x12, 0x18, 0x24};
  static const uint8_t kRates5[] = {1, 8, 0x8c, 0x12, 0x98, 0x24, 0xb0, 0x48, 0x60, 0x6c};
  const uint8_t* rates = ap.band == 0 ? kRates24 : kRates5;
  ies.insert(ies.end(), rates, rates + sizeof(kRates24));
  ies.push_back(3);
  ies.push_back(1);
  ies.push_back(static_cast<uint8_t>(ap.channel));
  return ies;
}

// The SSID as the elements carry it, when ssid= did not give one.
void SsidFromElements(ScenarioAp* ap) {
  std::vector<ElementRef> elements;
  SplitElements(ap->ies, &elements);
  const ElementRef* ssid = FindElement(elements, 0);
  if (ssid != nullptr && ssid->len <= kMaxSsidBytes) {
    ap->ssid.assign(ap->ies.begin() + static_cast<std::ptrdiff_t>(ssid->offset),
                    ap->ies.begin() + static_cast<std::ptrdiff_t>(ssid->offset + ssid->len));
  }
}

bool FinishAp(ApDraft* draft, Errors* errors) {
  ScenarioAp& ap = draft->ap;
  if (!draft->haveBssid) return errors->Fail("access point without bssid=");
  if (ap.channel == 0) return errors->Fail("access point without channel=");
  if (!draft->haveIes) {
    ap.ies = DefaultElements(ap);
  } else if (!draft->haveSsid) {
    SsidFromElements(&ap);
  }
  for (const std::vector<uint8_t>& payload : draft->vendorPayloads) {
    if (ap.ies.size() + 2 + kOuiBytes + payload.size() > kMaxIeBytes) {
      return errors->Fail("elements longer than " + std::to_string(kMaxIeBytes) + " bytes");
    }
    ap.ies.push_back(221);
    ap.ies.push_back(static_cast<uint8_t>(kOuiBytes + payload.size()));
    ap.ies.insert(ap.ies.end(), kVendorOui, kVendorOui + kOuiBytes);
    ap.ies.insert(ap.ies.end(), payload.begin(), payload.end());
  }
  if (ap.hidden) {
    ap.ssid.clear();
    ReplaceSsidElement(&ap.ies, ap.ssid);
  }
  return true;
}

}  // namespace

void ReplaceSsidElement(std::vector<uint8_t>* ies, const std::vector<uint8_t>& ssid) {
  std::vector<ElementRef> elements;
  if (!SplitElements(*ies, &elements)) return;
  const ElementRef* element = FindElement(elements, 0);
  if (element == nullptr || ssid.size() > kMaxSsidBytes) return;
  const auto begin = ies->begin() + static_cast<std::ptrdiff_t>(element->offset);
  ies->erase(begin, begin + element->len);
  ies->insert(ies->begin() + static_cast<std::ptrdiff_t>(element->offset), ssid.begin(),
              ssid.end());
  (*ies)[element->offset - 1] = static_cast<uint8_t>(ssid.size());
}

bool ParseAp(const std::vector<std::string>& tokens, ScenarioAp* ap, Errors* errors) {
  ApDraft draft;
  draft.ap.line = errors->line();
  for (size_t i = 1; i < tokens.size(); ++i) {
    std::string key;
    std::string value;
    bool has_value;
    SplitKey(tokens[i], &key, &value, &has_value);
    const bool ok =
        has_value ? ApplyValue(key, value, &draft, errors) : ApplyFlag(key, &draft.ap, errors);
    if (!ok) return false;
  }
  if (!FinishAp(&draft, errors)) return false;
  *ap = std::move(draft.ap);
  return true;
}

}  // namespace vela_sim
}  // namespace ky_loc_fw
