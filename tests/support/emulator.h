// Cross builds run their tests under a user-mode emulator, and the kernel
// cannot start a foreign binary by itself: each program a test starts goes
// through the same emulator as the test, named at build time.
#ifndef TESK_TESTS_SUPPORT_EMULATOR_H_
#define TESK_TESTS_SUPPORT_EMULATOR_H_

#include <limits.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

namespace tesk_test {

#ifdef TESK_TEST_EMULATOR
constexpr bool kUnderEmulator = true;
#else
constexpr bool kUnderEmulator = false;
#endif

// qemu-user opens no generic netlink sockets, so a daemon run under it logs
// this line once at start; nothing else in its log comes from the emulator.
constexpr char kEmulatorOnlyLogLine[] = "E tesk: Failed to open netlink socket: 93 (";

// `argv` as a command that runs on this machine: the emulator's command line
// (words separated by spaces) in front, when the tests have one.
inline std::vector<std::string> NativeCommand(std::vector<std::string> argv) {
#ifdef TESK_TEST_EMULATOR
  if (!argv.empty() && argv[0] == "/proc/self/exe") {
    // For the kernel that link is the emulator; the emulator answers with the
    // binary it runs.
    char path[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n > 0) argv[0].assign(path, static_cast<size_t>(n));
  }
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
