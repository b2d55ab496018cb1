// The words of a scenario line and the values they spell.
#ifndef VELA_CLIENT_SCENARIO_TOKENS_H_
#define VELA_CLIENT_SCENARIO_TOKENS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "scenario.h"

namespace ky_loc_fw {
namespace vela_sim {

// Formats one error as "line N: what"; kept small so every check reads as
// one line.
class Errors {
 public:
  explicit Errors(std::string* out) : out_(out) {}
  void SetLine(int line) { line_ = line; }
  int line() const { return line_; }
  bool Fail(const std::string& what) {
    if (out_ != nullptr) *out_ = "line " + std::to_string(line_) + ": " + what;
    return false;
  }

 private:
  std::string* out_;
  int line_ = 0;
};

// Words separated by blanks, up to a '#'.
std::vector<std::string> Tokenize(const std::string& line);
// Decimal or 0x hex, optionally signed, within [min, max].
bool ParseInt(const std::string& text, long long min, long long max, long long* out);
// An even number of hex digits, at most max_bytes bytes.
bool ParseHex(const std::string& text, size_t max_bytes, std::vector<uint8_t>* out);
bool ParseMac(const std::string& text, Mac48* out);
std::string FormatMac(Mac48 mac);
// "*", "N", "N-M", comma-separated.
bool ParseIds(const std::string& text, IdSet* out);
// Splits "key=value"; a token without '=' is a flag with an empty value.
void SplitKey(const std::string& token, std::string* key, std::string* value, bool* has_value);

// The frequency of an IEEE channel and its band (0 2.4 GHz, 1 5 GHz); 0 when
// the number names no channel.
unsigned int ChannelFrequency(unsigned int channel, int* band);

}  // namespace vela_sim
}  // namespace ky_loc_fw

#endif  // VELA_CLIENT_SCENARIO_TOKENS_H_
