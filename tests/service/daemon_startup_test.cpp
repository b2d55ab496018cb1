// The daemon binary as init starts it: every start-up failure is logged once
// and leaves the process alive. (A good start is what every end-to-end test makes.)
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/daemon_process.h"
#include "tests/support/emulator.h"
#include "tests/support/temp_dir.h"

namespace tesk_test {
namespace {

TEST(DaemonStartup, EachFailureIsLoggedOnceAndTheProcessStaysAlive) {
  const struct {
    const char* ipc_library;  // beside a copy of the daemon ("": none); null: no copy
    int socket_type;          // 0: none
    std::vector<std::string> environment;
    const char* message;
  } cases[] = {
      {"", SOCK_STREAM, {}, "Failed to load libtarnsocket"},
      {"libtarnsocket_without_entry_points.so", SOCK_STREAM, {}, "Shared library symbol not found"},
      // A number that is not an open socket in the daemon is no control socket.
      {nullptr, 0, {"ANDROID_SOCKET_tesk=0"}, "No service socket provided"},
      {nullptr, SOCK_DGRAM, {}, "Failed to create service"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    TempDir dir;
    DaemonProcess::Options options{"", c.environment, c.socket_type, "tesk=2"};
    // The copy finds its libraries, the dlopen'ed one included, through $ORIGIN/../lib.
    const auto copy = [&dir](const std::string& from, const std::string& to) {
      std::filesystem::create_directories(dir.Join(to.substr(0, 3)));
      std::filesystem::copy_file(BuiltBinary(from), dir.Join(to));
    };
    if (c.ipc_library != nullptr) {
      options.program = dir.Join("bin/tesk");
      copy("tesk", "bin/tesk");
      copy("../lib/libvela_client.so", "lib/libvela_client.so");
      if (*c.ipc_library != '\0') {
        copy(std::string("../lib/") + c.ipc_library, "lib/libtarnsocket.so");
      }
    }
    DaemonProcess daemon(options);
    ASSERT_TRUE(daemon.WaitForLog(std::string("E tesk: ") + c.message + "\n")) << daemon.Log();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(daemon.Running());
    // qemu-user opens no generic netlink socket: the daemon says so once more.
    EXPECT_EQ(daemon.CountInLog("E tesk: "), 1u + kUnderEmulator) << daemon.Log();
    EXPECT_EQ(daemon.CountInLog("Serving TESK interface"), 0u);
  }
}

}  // namespace
}  // namespace tesk_test
