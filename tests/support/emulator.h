// Cross builds run their tests under a user-mode emulator, and the kernel
// cannot start a foreign binary by itself: each program a test starts goes
// through the same emulator as the test, named at build time.
#ifndef TESK_TESTS_SUPPORT_EMULATOR_H_
#define TESK_TESTS_SUPPORT_EMULATOR_H_

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace tesk_test {

#ifdef TESK_TEST_EMULATOR
constexpr bool kUnderEmulator = true;
#else
constexpr bool kUnderEmulator = false;
#endif

// The machine an ELF file is built for (e_machine: two bytes at offset 18 in
// both ELF classes), or -1 when it is no ELF file.
inline int ElfMachine(const char* file) {
  unsigned char header[20];
  const int fd = open(file, O_RDONLY | O_CLOEXEC);
  const bool elf = fd >= 0 && read(fd, header, sizeof header) == sizeof header &&
                   memcmp(header, "\177ELF", 4) == 0;
  if (fd >= 0) close(fd);
  return elf ? header[18] | header[19] << 8 : -1;
}

// `argv` as a command that runs on this machine: the emulator's command line
// (words separated by spaces) in front of a program built for the target.
inline std::vector<std::string> NativeCommand(std::vector<std::string> argv) {
#ifdef TESK_TEST_EMULATOR
  // Built for the machine this process is built for (which the emulator
  // shows as its own /proc/self/exe), the program needs the emulator too.
  const int mine = ElfMachine("/proc/self/exe");
  if (argv.empty() || mine < 0 || ElfMachine(argv[0].c_str()) != mine) return argv;
  std::istringstream words(TESK_TEST_EMULATOR);
  std::vector<std::string> command;
  for (std::string word; words >> word;) command.push_back(word);
  argv.insert(argv.begin(), command.begin(), command.end());
#endif
  return argv;
}

// Pointers into `strings` for posix_spawn and execve, ending in a null.
inline std::vector<char*> ArgumentPointers(std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (std::string& s : strings) result.push_back(s.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace tesk_test

#endif  // TESK_TESTS_SUPPORT_EMULATOR_H_
