// Clients killed with SIGKILL in the middle of calls: the daemon keeps
// serving the others and holds on to nothing of theirs.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/daemon_process.h"
#include "tests/support/emulator.h"

namespace tesk_test {
namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kMemoryIsMeasurable = false;  // the sanitizer's quarantine holds freed memory
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kMemoryIsMeasurable = false;
#else
constexpr bool kMemoryIsMeasurable = true;
#endif
#else
constexpr bool kMemoryIsMeasurable = true;
#endif

// Starts a client that invokes the root object in a loop and kills it with
// SIGKILL once it has made calls.
void KillClientMidCall(const std::string& socket_path) {
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  std::vector<std::string> command =
      NativeCommand({BuiltBinary("root_client"), socket_path, "--hammer"});
  std::vector<char*> argv = ArgumentPointers(command);
  pid_t pid;
  ASSERT_EQ(posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  char ready[8];
  ASSERT_GT(read(out[0], ready, sizeof ready), 0);  // "calling": it is connected
  close(out[0]);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  kill(pid, SIGKILL);
  int status;
  waitpid(pid, &status, 0);
}

// Waits for the daemon to let go of dead clients' descriptors.
int SettledDescriptorCount(DaemonProcess& daemon, int expected) {
  int count = daemon.OpenDescriptorCount();
  for (int i = 0; i < 500 && count != expected; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    count = daemon.OpenDescriptorCount();
  }
  return count;
}

TEST(ClientDeath, KilledClientsLeaveNoDescriptorsOrMemoryBehind) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.WaitUntilServing()) << daemon.Log();

  // Warm up: thread pools, allocator arenas and lazily made singletons.
  for (int i = 0; i < 5; ++i) KillClientMidCall(daemon.socket_path());
  const int baseline_fds = SettledDescriptorCount(daemon, -1);
  const long baseline_kb = daemon.ResidentKilobytes();

  for (int i = 0; i < 40; ++i) KillClientMidCall(daemon.socket_path());

  EXPECT_EQ(SettledDescriptorCount(daemon, baseline_fds), baseline_fds);
  if (kMemoryIsMeasurable) {
    EXPECT_LT(daemon.ResidentKilobytes() - baseline_kb, 2048) << "resident memory grew";
  }

  // The others are still served.
  const ProcessResult client = RunProcess({BuiltBinary("root_client"), daemon.socket_path()});
  EXPECT_EQ(client.exit_code, 0) << client.out << client.err;
  EXPECT_TRUE(daemon.Running());
  EXPECT_EQ(daemon.CountInLog(" E tesk: "), 0u) << daemon.Log();
}

}  // namespace
}  // namespace tesk_test
