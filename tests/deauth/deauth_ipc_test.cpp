// The deauth monitor served over the real IPC library on a Unix socket, fed
// kernel-shaped disconnect events through a socket pair, and watched by
// teskctl in a process of its own.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "deauth/deauth_monitor.h"
#include "service/root_object.h"
#include "tarnsocket/tarn_ipc.h"
#include "tests/deauth/test_support.h"
#include "tests/support/daemon_process.h"
#include "tests/support/log_lines.h"
#include "tests/support/temp_dir.h"

namespace {

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

  tesk_test::TempDir dir;
  const std::string path = dir.Join("tesk");
  const int listen_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{AF_UNIX, {}};
  ASSERT_LT(path.size(), sizeof address.sun_path);
  strcpy(address.sun_path, path.c_str());
  ASSERT_EQ(bind(listen_fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  void* service = TarnIPC_startServiceOnSocket(listen_fd, &root_invoke, nullptr);
  ASSERT_NE(service, nullptr);

  // teskctl's pid first (exec keeps it), then its output and errors; no
  // deadlines: the test's own timeout catches a hang.
  const std::string command = "echo $$; exec '" + tesk_test::NativeProgram(TESKCTL) +
                              "' --socket '" + path + "' watch 2>&1";
  FILE* watch = popen(command.c_str(), "r");
  char line[256];
  ASSERT_NE(fgets(line, sizeof line, watch), nullptr);
  const pid_t pid = atoi(line);
  ASSERT_NE(fgets(line, sizeof line, watch), nullptr);
  EXPECT_STREQ(line, "teskctl: watching disconnect events; interrupt to stop\n");
  using deauth_test::DisconnectEvent;
  ASSERT_TRUE(kernel.Send(DisconnectEvent(1, 4, 7, true).Bytes()));
  ASSERT_TRUE(kernel.Send({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
  ASSERT_TRUE(kernel.Send(DisconnectEvent(0, 3, 0, false).Bytes()));
  ASSERT_TRUE(kernel.Send(DisconnectEvent(2, 9, 65535, false).Bytes()));
  for (const char* expected : {"disconnect: wiphy 1, ifindex 4, reason 7, by access point\n",
                               "disconnect: wiphy 0, ifindex 3, reason 0, local\n",
                               "disconnect: wiphy 2, ifindex 9, reason 65535, local\n"}) {
    ASSERT_NE(fgets(line, sizeof line, watch), nullptr);
    EXPECT_STREQ(line, expected);
  }
  kill(pid, SIGKILL);
  pclose(watch);
  DeauthMonitor::Get().OnDeauth(5, 5, 5, false);  // to a client gone, or no longer registered
  EXPECT_EQ(log.Take(),
            (std::vector<std::string>{"I family 28 group 8", "W Bad Netlink message length"}));

  TarnIPC_stopService(service);
  TarnIPC_join(service);
  close(listen_fd);
}

}  // namespace
