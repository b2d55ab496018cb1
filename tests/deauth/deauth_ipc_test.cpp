// The deauth monitor served over the real IPC library on a Unix socket, fed
// kernel-shaped disconnect events through a socket pair, and watched by
// teskctl in a process of its own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "deauth/deauth_monitor.h"
#include "deauth/deauth_monitor_object.h"
#include "service/root_object.h"
#include "tarnsocket/tarn_ipc.h"
#include "tests/deauth/test_support.h"
#include "tests/support/emulator.h"
#include "tests/support/log_lines.h"
#include "tests/support/temp_dir.h"

extern char** environ;

namespace {

using deauth_test::FakeCallback;

constexpr uint32_t kRegister = kDeauthRegisterCounts;

// The next callback registered through the IPC library gets wrapped in
// this one, which counts what the monitor does with it.
std::atomic<FakeCallback*> g_watch{nullptr};

int32_t TrackingMonitorInvoke(void* /*context*/, uint32_t op, ObjectArg* args, uint32_t counts) {
  FakeCallback* watch =
      op == OBJECT_OP_METHOD && counts == kRegister ? g_watch.exchange(nullptr) : nullptr;
  if (watch == nullptr) return deauth_monitor_invoke(nullptr, op, args, counts);
  watch->inner = args[0].o;
  ObjectArg wrapped[2];
  wrapped[0].o = watch->object();
  const int32_t result = deauth_monitor_invoke(nullptr, op, wrapped, counts);
  args[1].o = wrapped[1].o;
  return result;
}

// root_invoke, handing out the tracking monitor instead of the plain one.
int32_t TrackingRootInvoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts) {
  const int32_t result = root_invoke(context, op, args, counts);
  if (result == OBJECT_OK && op == OBJECT_OP_METHOD && args[1].o.invoke == &deauth_monitor_invoke) {
    args[1].o.invoke = &TrackingMonitorInvoke;
  }
  return result;
}

// The detector looks nl80211's "mlme" group up, joins it and listens; a
// datagram too short for netlink is dropped and the next events still come.
TEST(DeauthOverIpcTest, TeskctlWatchGetsEachEventInOrderUntilKilled) {
  using deauth_test::FakeNetlink;
  using deauth_test::Group;
  tesk_test::LogLines log;
  static deauth_test::DatagramPair kernel;  // the monitor listens on it until the process ends
  ASSERT_TRUE(
      kernel.Send(deauth_test::FamilyReply({Group("scan", 6), Group("mlme", 8), Group("v", 9)})));
  FakeNetlink::socket = kernel.TakeFirst();
  ASSERT_TRUE(DeauthMonitor::Get().Initialize(FakeNetlink::kAccess));
  EXPECT_EQ(FakeNetlink::joined, 8u);
  FakeNetlink::socket = -1;
  EXPECT_TRUE(DeauthMonitor::Get().Initialize(FakeNetlink::kAccess))
      << "a second call opens nothing";

  FakeCallback callback;
  g_watch = &callback;
  tesk_test::TempDir dir;
  const std::string path = dir.Join("tesk");
  const int listen_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{AF_UNIX, {}};
  ASSERT_LT(path.size(), sizeof address.sun_path);
  strcpy(address.sun_path, path.c_str());
  ASSERT_EQ(bind(listen_fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  void* service = TarnIPC_startServiceOnSocket(listen_fd, &TrackingRootInvoke, nullptr);
  ASSERT_NE(service, nullptr);

  int out[2];
  ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  std::vector<std::string> command = tesk_test::NativeCommand({TESKCTL, "--socket", path, "watch"});
  std::vector<char*> argv = tesk_test::ArgumentPointers(command);
  pid_t pid = -1;
  ASSERT_EQ(posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  FILE* watch = fdopen(out[0], "r");

  // No deadlines in these waits: the test's own timeout catches a hang.
  while (callback.retains == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  using deauth_test::DisconnectEvent;
  ASSERT_TRUE(kernel.Send(DisconnectEvent(1, 4, 7, true).Bytes()));
  ASSERT_TRUE(kernel.Send({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
  ASSERT_TRUE(kernel.Send(DisconnectEvent(0, 3, 0, false).Bytes()));
  ASSERT_TRUE(kernel.Send(DisconnectEvent(2, 9, 65535, false).Bytes()));
  char line[256];
  for (const char* expected : {"disconnect: wiphy 1, ifindex 4, reason 7, by access point\n",
                               "disconnect: wiphy 0, ifindex 3, reason 0, local\n",
                               "disconnect: wiphy 2, ifindex 9, reason 65535, local\n"}) {
    ASSERT_NE(fgets(line, sizeof line, watch), nullptr);
    EXPECT_STREQ(line, expected);
  }

  kill(pid, SIGKILL);
  ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
  // The library drops the dead client's token, and the monitor its callback.
  while (callback.releases == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  DeauthMonitor::Get().OnDeauth(5, 5, 5, false);  // a whole round, done on return
  EXPECT_EQ(callback.retains, 1);
  EXPECT_EQ(callback.releases, 1);
  EXPECT_EQ(callback.deliveries, 3) << "nothing delivered after the drop";
  EXPECT_EQ(callback.bad_deliveries, 0) << "one 16-byte record per event";
  EXPECT_EQ(log.Take(),
            (std::vector<std::string>{"I family 28 group 8", "W Bad Netlink message length"}));

  TarnIPC_stopService(service);
  TarnIPC_join(service);
  close(listen_fd);
  fclose(watch);
}

}  // namespace
