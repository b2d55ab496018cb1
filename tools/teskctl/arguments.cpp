#include "arguments.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

// Hexadecimal only with an explicit 0x: a leading zero is not octal.
int BaseOf(const std::string& digits) {
  return digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X') ? 16 : 10;
}

}  // namespace

bool Arguments::Flag(const char* name) {
  if (Done() || strcmp(argv_[at_], name) != 0) return false;
  ++at_;
  return true;
}

bool Arguments::Option(const char* name, std::string* value, bool* missing) {
  if (Done()) return false;
  const char* word = argv_[at_];
  const size_t length = strlen(name);
  if (strncmp(word, name, length) != 0) return false;
  if (word[length] == '=') {
    *value = word + length + 1;
    ++at_;
    return true;
  }
  if (word[length] != '\0') return false;
  ++at_;
  if (Done()) {
    *missing = true;
    return true;
  }
  *value = argv_[at_++];
  return true;
}

bool ParseUint(const std::string& text, uint64_t max, uint64_t* value) {
  if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ') return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long long parsed = strtoull(text.c_str(), &end, BaseOf(text));
  if (errno != 0 || *end != '\0' || parsed > max) return false;
  *value = parsed;
  return true;
}

bool ParseInt64(const std::string& text, int64_t* value) {
  if (text.empty() || text[0] == ' ') return false;
  const bool negative = text[0] == '-';
  errno = 0;
  char* end = nullptr;
  const long long parsed = strtoll(text.c_str(), &end, BaseOf(negative ? text.substr(1) : text));
  if (errno != 0 || *end != '\0') return false;
  *value = parsed;
  return true;
}
