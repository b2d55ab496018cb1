#include "scenario_tokens.h"

#include <cstdio>

namespace ky_loc_fw {
namespace vela_sim {

namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

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

}  // namespace vela_sim
}  // namespace ky_loc_fw
