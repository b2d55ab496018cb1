// Command-line reading shared by the subcommands: long options as
// "--name VALUE" or "--name=VALUE", and strict number parsing.
#ifndef TESK_TOOLS_TESKCTL_ARGUMENTS_H_
#define TESK_TOOLS_TESKCTL_ARGUMENTS_H_

#include <cstdint>
#include <string>

class Arguments {
 public:
  // Reads argv[first..argc).
  Arguments(int argc, char** argv, int first) : argc_(argc), argv_(argv), at_(first) {}

  bool Done() const { return at_ >= argc_; }
  const char* Current() const { return argv_[at_]; }
  int index() const { return at_; }
  void Skip() { ++at_; }

  // True and advances when the current word is the flag `name`.
  bool Flag(const char* name);
  // True and advances when the current word is option `name`; *value gets
  // its value. A missing value sets *missing.
  bool Option(const char* name, std::string* value, bool* missing);

 private:
  int argc_;
  char** argv_;
  int at_;
};

// Decimal, or hexadecimal with 0x; the whole text must be the number.
bool ParseUint(const std::string& text, uint64_t max, uint64_t* value);
bool ParseInt64(const std::string& text, int64_t* value);

#endif  // TESK_TOOLS_TESKCTL_ARGUMENTS_H_
