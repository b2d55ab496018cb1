// The daemon binary as init starts it: every start-up failure is logged once
// and leaves the process alive; a good start serves the root object.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <thread>

#include "tests/support/daemon_process.h"
#include "tests/support/temp_dir.h"

namespace tesk_test {
namespace {

void Copy(const std::string& from, const std::string& to) {
  std::ifstream in(from, std::ios::binary);
  std::ofstream out(to, std::ios::binary);
  out << in.rdbuf();
  out.close();
  ASSERT_TRUE(in.good() || in.eof()) << from;
  ASSERT_EQ(chmod(to.c_str(), 0755), 0);
}

// A copy of the daemon beside a lib/ folder of our choosing: the daemon
// finds libraries, the dlopen'ed one included, through $ORIGIN/../lib.
struct RelocatedDaemon {
  TempDir dir;
  std::string program;

  explicit RelocatedDaemon(const std::string& ipc_library) {
    mkdir(dir.Join("bin").c_str(), 0755);
    mkdir(dir.Join("lib").c_str(), 0755);
    program = dir.Join("bin/tesk");
    Copy(BuiltBinary("tesk"), program);
    Copy(BuiltLibrary("libvela_client.so"), dir.Join("lib/libvela_client.so"));
    if (!ipc_library.empty()) Copy(ipc_library, dir.Join("lib/libtarnsocket.so"));
  }
};

// The failure is logged once, at error level, without a trailing newline,
// and the process then sleeps instead of exiting.
void ExpectLoggedFailureAndAlive(DaemonProcess& daemon, const std::string& message) {
  const std::string line = "E tesk: " + message + "\n";
  ASSERT_TRUE(daemon.WaitForLog(line)) << daemon.Log();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_TRUE(daemon.Running());
  EXPECT_EQ(daemon.CountInLog("E tesk: "), 1u) << daemon.Log();
  EXPECT_EQ(daemon.CountInLog("Serving TESK interface"), 0u);
}

TEST(DaemonStartup, MissingIpcLibrary) {
  RelocatedDaemon relocated("");
  DaemonProcess daemon({relocated.program, {}, true, SOCK_STREAM, "tesk=2"});
  ExpectLoggedFailureAndAlive(daemon, "Failed to load libtarnsocket");
}

TEST(DaemonStartup, IpcLibraryWithoutItsEntryPoints) {
  RelocatedDaemon relocated(BuiltLibrary("libtarnsocket_without_entry_points.so"));
  DaemonProcess daemon({relocated.program, {}, true, SOCK_STREAM, "tesk=2"});
  ExpectLoggedFailureAndAlive(daemon, "Shared library symbol not found");
}

TEST(DaemonStartup, NoControlSocket) {
  DaemonProcess daemon({"", {}, false, SOCK_STREAM, "tesk=2"});
  ExpectLoggedFailureAndAlive(daemon, "No service socket provided");
}

TEST(DaemonStartup, ControlSocketVariableNamingNoSocket) {
  // A number that is not an open socket in the daemon is no control socket.
  DaemonProcess daemon({"", {"ANDROID_SOCKET_tesk=0"}, false, SOCK_STREAM, "tesk=2"});
  ExpectLoggedFailureAndAlive(daemon, "No service socket provided");
}

TEST(DaemonStartup, ControlSocketThatCannotServe) {
  DaemonProcess daemon({"", {}, true, SOCK_DGRAM, "tesk=2"});
  ExpectLoggedFailureAndAlive(daemon, "Failed to create service");
}

TEST(DaemonStartup, ServesAndAnswersAClientWrittenInC) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.WaitForLog("I tesk: Serving TESK interface\n")) << daemon.Log();
  ASSERT_TRUE(daemon.WaitUntilServing());

  const ProcessResult client = RunProcess({BuiltBinary("root_client"), daemon.socket_path()});
  EXPECT_EQ(client.exit_code, 0) << client.out << client.err;
  EXPECT_EQ(client.out, "result 2, null object\n");
  EXPECT_TRUE(daemon.Running());
}

}  // namespace
}  // namespace tesk_test
