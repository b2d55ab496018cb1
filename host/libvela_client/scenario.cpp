#include "scenario.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "information_elements.h"

namespace ky_loc_fw {
namespace vela_sim {

namespace {

constexpr size_t kMaxIeBytes = 2048;
constexpr size_t kMaxSsidBytes = 32;
constexpr size_t kOuiBytes = 3;
constexpr uint8_t kVendorOui[kOuiBytes] = {TESK_VENDOR_OUI_BYTES};
constexpr uint32_t kMaxLatencyMs = 600000;

// Formats one error; kept small so every check reads as one line.
class Errors {
 public:
  explicit Errors(std::string* out) : out_(out) {}
  void SetLine(int line) { line_ = line; }
  bool Fail(const std::string& what) {
    if (out_ != nullptr) *out_ = "line " + std::to_string(line_) + ": " + what;
    return false;
  }

 private:
  std::string* out_;
  int line_ = 0;
};

std::vector<std::string> Tokenize(const std::string& line) {
  std::vector<std::string> tokens;
  size_t pos = 0;
  while (pos < line.size()) {
    while (pos < line.size() && (line[pos] == ' ' || line[pos] == '\t')) ++pos;
    if (pos >= line.size() || line[pos] == '#') break;
    size_t end = pos;
    while (end < line.size() && line[end] != ' ' && line[end] != '\t') ++end;
    tokens.push_back(line.substr(pos, end - pos));
    pos = end;
  }
  return tokens;
}

bool ParseInt(const std::string& text, long long min, long long max, long long* out) {
  size_t pos = 0;
  bool negative = false;
  if (pos < text.size() && (text[pos] == '-' || text[pos] == '+')) {
    negative = text[pos] == '-';
    ++pos;
  }
  int base = 10;
  if (text.size() - pos > 2 && text[pos] == '0' && (text[pos + 1] == 'x' || text[pos + 1] == 'X')) {
    base = 16;
    pos += 2;
  }
  if (pos >= text.size()) return false;
  long long value = 0;
  for (; pos < text.size(); ++pos) {
    const char c = text[pos];
    int digit;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (base == 16 && c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10;
    } else if (base == 16 && c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10;
    } else {
      return false;
    }
    value = value * base + digit;
    if (value > (1LL << 40)) return false;  // far beyond any field; stops overflow
  }
  if (negative) value = -value;
  if (value < min || value > max) return false;
  *out = value;
  return true;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool ParseHex(const std::string& text, size_t max_bytes, std::vector<uint8_t>* out) {
  if (text.size() % 2 != 0 || text.size() / 2 > max_bytes) return false;
  out->clear();
  for (size_t i = 0; i < text.size(); i += 2) {
    const int hi = HexDigit(text[i]);
    const int lo = HexDigit(text[i + 1]);
    if (hi < 0 || lo < 0) return false;
    out->push_back(static_cast<uint8_t>(hi << 4 | lo));
  }
  return true;
}

bool ParseMac(const std::string& text, Mac48* out) {
  if (text.size() != 17) return false;
  Mac48 mac = 0;
  for (size_t i = 0; i < 6; ++i) {
    const int hi = HexDigit(text[i * 3]);
    const int lo = HexDigit(text[i * 3 + 1]);
    if (hi < 0 || lo < 0 || (i < 5 && text[i * 3 + 2] != ':')) return false;
    mac = mac << 8 | static_cast<Mac48>(hi << 4 | lo);
  }
  *out = mac;
  return true;
}

std::string FormatMac(Mac48 mac) {
  char text[18];
  std::snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x",
                static_cast<unsigned>(mac >> 40 & 0xFF), static_cast<unsigned>(mac >> 32 & 0xFF),
                static_cast<unsigned>(mac >> 24 & 0xFF), static_cast<unsigned>(mac >> 16 & 0xFF),
                static_cast<unsigned>(mac >> 8 & 0xFF), static_cast<unsigned>(mac & 0xFF));
  return text;
}

unsigned int ChannelFrequency(unsigned int channel, int* band) {
  if (channel >= 1 && channel <= 13) {
    *band = 0;
    return 2407 + 5 * channel;
  }
  if (channel == 14) {
    *band = 0;
    return 2484;
  }
  if (channel >= 32 && channel <= 177) {
    *band = 1;
    return 5000 + 5 * channel;
  }
  return 0;
}

// Splits "key=value"; a token without '=' is a flag with an empty value.
void SplitKey(const std::string& token, std::string* key, std::string* value, bool* has_value) {
  const size_t eq = token.find('=');
  *has_value = eq != std::string::npos;
  *key = token.substr(0, eq);
  *value = *has_value ? token.substr(eq + 1) : std::string();
}

bool ParseIds(const std::string& text, IdSet* out) {
  if (text == "*") {
    out->all = true;
    return true;
  }
  size_t pos = 0;
  while (pos <= text.size()) {
    size_t end = text.find(',', pos);
    if (end == std::string::npos) end = text.size();
    const std::string item = text.substr(pos, end - pos);
    const size_t dash = item.find('-');
    long long first;
    long long last;
    if (dash == std::string::npos) {
      if (!ParseInt(item, 0, UINT32_MAX, &first)) return false;
      last = first;
    } else if (!ParseInt(item.substr(0, dash), 0, UINT32_MAX, &first) ||
               !ParseInt(item.substr(dash + 1), 0, UINT32_MAX, &last) || last < first) {
      return false;
    }
    out->ranges.emplace_back(static_cast<uint32_t>(first), static_cast<uint32_t>(last));
    if (end == text.size()) break;
    pos = end + 1;
  }
  return true;
}

std::vector<uint8_t> DefaultElements(const ScenarioAp& ap) {
  std::vector<uint8_t> ies;
  ies.push_back(0);
  ies.push_back(static_cast<uint8_t>(ap.ssid.size()));
  ies.insert(ies.end(), ap.ssid.begin(), ap.ssid.end());
  if (ap.band == 0) {
    const uint8_t rates[] = {1, 8, 0x82, 0x84, 0x8b, 0x96, 0x0c, 0x12, 0x18, 0x24};
    ies.insert(ies.end(), rates, rates + sizeof(rates));
  } else {
    const uint8_t rates[] = {1, 8, 0x8c, 0x12, 0x98, 0x24, 0xb0, 0x48, 0x60, 0x6c};
    ies.insert(ies.end(), rates, rates + sizeof(rates));
  }
  ies.push_back(3);
  ies.push_back(1);
  ies.push_back(static_cast<uint8_t>(ap.channel));
  return ies;
}

// A hidden access point sends its SSID element empty.
void BlankSsidElement(std::vector<uint8_t>* ies) {
  std::vector<ElementRef> elements;
  if (!SplitElements(*ies, &elements)) return;
  const ElementRef* ssid = FindElement(elements, 0);
  if (ssid == nullptr) return;
  const auto begin = ies->begin() + static_cast<std::ptrdiff_t>(ssid->offset);
  ies->erase(begin, begin + ssid->len);
  (*ies)[ssid->offset - 1] = 0;
}

class Parser {
 public:
  Parser(Scenario* out, std::string* error) : out_(out), errors_(error) {}

  bool Parse(const std::string& text) {
    *out_ = Scenario();
    if (text.size() > kMaxScenarioBytes) {
      return errors_.Fail("scenario longer than " + std::to_string(kMaxScenarioBytes) + " bytes");
    }
    size_t pos = 0;
    int line_number = 0;
    while (pos < text.size()) {
      size_t end = text.find('\n', pos);
      if (end == std::string::npos) end = text.size();
      std::string line = text.substr(pos, end - pos);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      errors_.SetLine(++line_number);
      line_ = line_number;
      if (!ParseLine(Tokenize(line))) return false;
      pos = end + 1;
    }
    return true;
  }

 private:
  bool ParseLine(const std::vector<std::string>& tokens) {
    if (tokens.empty()) return true;
    const std::string& directive = tokens[0];
    if (directive == "latency") return ParseLatency(tokens);
    if (directive == "ap") return ParseAp(tokens);
    if (directive == "range") return ParseRange(tokens);
    if (directive == "fault") return ParseFault(tokens);
    return errors_.Fail("unknown directive '" + directive + "'");
  }

  bool ParseLatency(const std::vector<std::string>& tokens) {
    long long ms;
    if (tokens.size() != 2 || !ParseInt(tokens[1], 0, kMaxLatencyMs, &ms)) {
      return errors_.Fail("latency takes one number of milliseconds, 0 to " +
                          std::to_string(kMaxLatencyMs));
    }
    out_->latencyMs = static_cast<uint32_t>(ms);
    return true;
  }

  bool ParseAp(const std::vector<std::string>& tokens) {
    if (out_->aps.size() >= kMaxAccessPoints) {
      return errors_.Fail("more than " + std::to_string(kMaxAccessPoints) + " access points");
    }
    ScenarioAp ap;
    ap.line = current_line();
    bool have_bssid = false;
    bool have_ssid = false;
    bool have_ies = false;
    std::vector<std::vector<uint8_t>> vendor_payloads;
    for (size_t i = 1; i < tokens.size(); ++i) {
      std::string key;
      std::string value;
      bool has_value;
      SplitKey(tokens[i], &key, &value, &has_value);
      long long number;
      if (!has_value) {
        if (key == "hidden") {
          ap.hidden = true;
        } else if (key == "cached") {
          ap.cached = true;
        } else if (key == "probe") {
          ap.probe = true;
        } else {
          return errors_.Fail("unknown access point flag '" + key + "'");
        }
      } else if (key == "bssid") {
        if (!ParseMac(value, &ap.bssid)) return errors_.Fail("bad MAC address '" + value + "'");
        have_bssid = true;
      } else if (key == "ssid") {
        if (value.compare(0, 4, "hex:") == 0) {
          if (!ParseHex(value.substr(4), kMaxSsidBytes, &ap.ssid)) {
            return errors_.Fail("ssid=hex: needs an even number of hex digits, at most 32 bytes");
          }
        } else {
          if (value.size() > kMaxSsidBytes) return errors_.Fail("ssid longer than 32 bytes");
          ap.ssid.assign(value.begin(), value.end());
        }
        have_ssid = true;
      } else if (key == "channel") {
        if (!ParseInt(value, 1, 177, &number) ||
            (ap.frequencyMhz = ChannelFrequency(static_cast<unsigned>(number), &ap.band)) == 0) {
          return errors_.Fail("bad channel '" + value + "' (1-14 or 32-177)");
        }
        ap.channel = static_cast<unsigned int>(number);
      } else if (key == "rssi") {
        if (!ParseInt(value, -127, 0, &number)) return errors_.Fail("rssi must be -127 to 0 dBm");
        ap.rssiDbm = static_cast<int>(number);
      } else if (key == "interval") {
        if (!ParseInt(value, 1, 65535, &number)) return errors_.Fail("interval must be 1 to 65535");
        ap.intervalTu = static_cast<unsigned int>(number);
      } else if (key == "capability") {
        if (!ParseInt(value, 0, 65535, &number)) {
          return errors_.Fail("capability must be 0 to 0xffff");
        }
        ap.capability = static_cast<int>(number);
      } else if (key == "txpower") {
        if (!ParseInt(value, -10, 40, &number)) return errors_.Fail("txpower must be -10 to 40");
        ap.txPowerDbm = static_cast<int>(number);
      } else if (key == "security") {
        static const char* const kNames[] = {"open", "wep", "wpa", "wpa2", "wpa3"};
        ap.security = -1;
        for (int s = 0; s < 5; ++s) {
          if (value == kNames[s]) ap.security = s;
        }
        if (ap.security < 0) return errors_.Fail("security must be open, wep, wpa, wpa2 or wpa3");
      } else if (key == "ies") {
        if (!ParseHex(value, kMaxIeBytes, &ap.ies)) {
          return errors_.Fail("ies needs an even number of hex digits, at most " +
                              std::to_string(kMaxIeBytes) + " bytes");
        }
        std::vector<ElementRef> elements;
        if (!SplitElements(ap.ies, &elements)) {
          return errors_.Fail("ies: the last element runs past the end");
        }
        have_ies = true;
      } else if (key == "vendor") {
        std::vector<uint8_t> payload;
        if (!ParseHex(value, 255 - kOuiBytes, &payload)) {
          return errors_.Fail("vendor needs an even number of hex digits, at most 252 bytes");
        }
        vendor_payloads.push_back(payload);
      } else {
        return errors_.Fail("unknown access point key '" + key + "'");
      }
    }
    if (!have_bssid) return errors_.Fail("access point without bssid=");
    if (ap.channel == 0) return errors_.Fail("access point without channel=");
    for (const ScenarioAp& other : out_->aps) {
      if (other.bssid == ap.bssid) {
        return errors_.Fail("access point " + FormatMac(ap.bssid) + " already defined on line " +
                            std::to_string(other.line));
      }
    }
    if (!have_ies) {
      ap.ies = DefaultElements(ap);
    } else if (!have_ssid) {
      std::vector<ElementRef> elements;
      SplitElements(ap.ies, &elements);
      const ElementRef* ssid = FindElement(elements, 0);
      if (ssid != nullptr && ssid->len <= kMaxSsidBytes) {
        ap.ssid.assign(ap.ies.begin() + static_cast<std::ptrdiff_t>(ssid->offset),
                       ap.ies.begin() + static_cast<std::ptrdiff_t>(ssid->offset + ssid->len));
      }
    }
    for (const std::vector<uint8_t>& payload : vendor_payloads) {
      if (ap.ies.size() + 2 + kOuiBytes + payload.size() > kMaxIeBytes) {
        return errors_.Fail("elements longer than " + std::to_string(kMaxIeBytes) + " bytes");
      }
      ap.ies.push_back(221);
      ap.ies.push_back(static_cast<uint8_t>(kOuiBytes + payload.size()));
      ap.ies.insert(ap.ies.end(), kVendorOui, kVendorOui + kOuiBytes);
      ap.ies.insert(ap.ies.end(), payload.begin(), payload.end());
    }
    if (ap.hidden) {
      ap.ssid.clear();
      BlankSsidElement(&ap.ies);
    }
    out_->aps.push_back(std::move(ap));
    return true;
  }

  bool ParseRange(const std::vector<std::string>& tokens) {
    if (out_->ranges.size() >= kMaxRanges) {
      return errors_.Fail("more than " + std::to_string(kMaxRanges) + " range lines");
    }
    ScenarioRange range;
    if (tokens.size() < 2 || !ParseMac(tokens[1], &range.mac)) {
      return errors_.Fail("range needs a MAC address first");
    }
    for (size_t i = 2; i < tokens.size(); ++i) {
      std::string key;
      std::string value;
      bool has_value;
      SplitKey(tokens[i], &key, &value, &has_value);
      long long number;
      if (!has_value && key == "plain") {
        range.plain = true;
      } else if (has_value && key == "distance") {
        if (!ParseInt(value, 1, 1000000, &number)) {
          return errors_.Fail("distance must be 1 to 1000000 mm");
        }
        range.distanceMm = static_cast<uint32_t>(number);
      } else if (has_value && key == "spread") {
        if (!ParseInt(value, 1, 1000000, &number)) {
          return errors_.Fail("spread must be 1 to 1000000 mm");
        }
        range.spreadMm = static_cast<uint32_t>(number);
      } else if (has_value && key == "rssi") {
        if (!ParseInt(value, -127, -1, &number)) return errors_.Fail("rssi must be -127 to -1 dBm");
        range.rssiDbm = static_cast<int>(number);
      } else {
        return errors_.Fail("unknown range key '" + tokens[i] + "'");
      }
    }
    for (const ScenarioRange& other : out_->ranges) {
      if (other.mac == range.mac) {
        return errors_.Fail("range for " + FormatMac(range.mac) + " given twice");
      }
    }
    out_->ranges.push_back(range);
    return true;
  }

  bool ParseFault(const std::vector<std::string>& tokens) {
    if (tokens.size() == 2 && tokens[1] == "create") {
      out_->refuseCreate = true;
      return true;
    }
    if (out_->faults.size() >= kMaxFaults) {
      return errors_.Fail("more than " + std::to_string(kMaxFaults) + " faults");
    }
    static const struct {
      const char* name;
      FaultKind kind;
    } kKinds[] = {
        {"refuse", FaultKind::kRefuse},       {"drop", FaultKind::kDrop},
        {"null", FaultKind::kNull},           {"wrong-type", FaultKind::kWrongType},
        {"odd-type", FaultKind::kOddType},    {"odd-measurement", FaultKind::kOddMeasurement},
        {"duplicate", FaultKind::kDuplicate}, {"status", FaultKind::kStatus},
    };
    if (tokens.size() < 2) return errors_.Fail("fault needs a kind");
    ScenarioFault fault;
    bool known = false;
    for (const auto& k : kKinds) {
      if (tokens[1] == k.name) {
        fault.kind = k.kind;
        known = true;
      }
    }
    if (!known) return errors_.Fail("unknown fault '" + tokens[1] + "'");
    const size_t wanted = fault.kind == FaultKind::kStatus ? 4 : 3;
    if (tokens.size() != wanted) {
      return errors_.Fail(fault.kind == FaultKind::kStatus
                              ? "fault status takes request ids and a status"
                              : "fault " + tokens[1] + " takes request ids");
    }
    if (!ParseIds(tokens[2], &fault.ids)) {
      return errors_.Fail("bad request ids '" + tokens[2] + "' (*, N, N-M, comma-separated)");
    }
    if (fault.kind == FaultKind::kStatus) {
      long long status;
      if (!ParseInt(tokens[3], INT32_MIN, INT32_MAX, &status)) {
        return errors_.Fail("bad status '" + tokens[3] + "'");
      }
      fault.status = static_cast<int32_t>(status);
    }
    out_->faults.push_back(std::move(fault));
    return true;
  }

  int current_line() const { return line_; }

  Scenario* out_;
  Errors errors_;
  int line_ = 0;
};

}  // namespace

bool IdSet::Contains(uint32_t id) const {
  if (all) return true;
  for (const auto& range : ranges) {
    if (id >= range.first && id <= range.second) return true;
  }
  return false;
}

bool Scenario::HasFault(FaultKind kind, uint32_t id) const {
  for (const ScenarioFault& fault : faults) {
    if (fault.kind == kind && fault.ids.Contains(id)) return true;
  }
  return false;
}

bool Scenario::StatusFault(uint32_t id, int32_t* status) const {
  for (const ScenarioFault& fault : faults) {
    if (fault.kind == FaultKind::kStatus && fault.ids.Contains(id)) {
      *status = fault.status;
      return true;
    }
  }
  return false;
}

bool ParseScenario(const std::string& text, Scenario* out, std::string* error) {
  return Parser(out, error).Parse(text);
}

bool LoadScenarioFile(const char* path, Scenario* out, std::string* error) {
  FILE* file = std::fopen(path, "rb");
  if (file == nullptr) {
    const int err = errno;
    *error = std::string(path) + ": cannot open: " + std::to_string(err) + " (" +
             std::strerror(err) + ")";
    return false;
  }
  std::string text;
  char buffer[4096];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof(buffer), file)) > 0) {
    text.append(buffer, n);
    if (text.size() > kMaxScenarioBytes) break;
  }
  const bool read_error = std::ferror(file) != 0;
  std::fclose(file);
  if (read_error) {
    *error = std::string(path) + ": read error";
    return false;
  }
  std::string what;
  if (!ParseScenario(text, out, &what)) {
    *error = std::string(path) + ": " + what;
    return false;
  }
  return true;
}

}  // namespace vela_sim
}  // namespace ky_loc_fw
