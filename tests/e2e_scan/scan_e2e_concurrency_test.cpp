// End to end with several clients at once and clients that go away in the
// middle of a scan: each gets its own results, and the daemon keeps serving
// and holds nothing of the ones that left.
#include <signal.h>

#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "teskclient/mac_address.h"
#include "teskclient/session.h"
#include "tests/e2e_scan/e2e_scan_support.h"

namespace e2e_scan {
namespace {

std::string Bssid(int i) {
  return "02:00:00:00:01:0" + std::to_string(i);
}

std::string ApsScenario(int latency_ms, int count) {
  std::string text = "latency " + std::to_string(latency_ms) + "\n";
  for (int i = 1; i <= count; ++i)
    text += "ap bssid=" + Bssid(i) + " channel=" + std::to_string(i) + "\n";
  return text;
}

TEST(ScanConcurrency, ConcurrentClientsEachGetTheirOwnResults) {
  constexpr int kClients = 4;
  ScenarioDaemon daemon(ApsScenario(20, kClients));
  std::vector<std::thread> threads;
  std::vector<std::string> seen(kClients);
  std::vector<int> deliveries(kClients, -1);
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      Client client(daemon.socket_path(), teskclient::kDiscoveryScanInterface);
      if (!client.ok()) return;
      teskclient::DiscoveryScanPlan plan;
      teskclient::MacAddress mac;
      teskclient::ParseMacAddress(Bssid(i + 1), &mac);
      plan.bssids.push_back(mac);  // each client asks for a different station
      if (client.StartDiscovery(plan) != 0 || !client.WaitForDelivery()) return;
      const auto collected = client.collected();
      std::lock_guard<std::mutex> lock(collected->mutex);
      deliveries[i] = collected->deliveries;
      for (const WifiScanMeasurement& r : collected->discovery.records) {
        seen[i] += teskclient::FormatMacAddress(teskclient::FromWire(r.bssidLo24, r.bssidHi24));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int i = 0; i < kClients; ++i) {
    EXPECT_EQ(deliveries[i], 1) << i;
    EXPECT_EQ(seen[i], Bssid(i + 1)) << i;
  }
}

TEST(ScanConcurrency, ClientKilledMidScanLeavesTheDaemonServingWithNothingPending) {
  ScenarioDaemon daemon(ApsScenario(3000, 1));
  tesk_test::DaemonProcess& process = daemon.daemon();
  {
    Teskctl teskctl({"--socket", daemon.socket_path(), "scan"});
    ASSERT_TRUE(process.WaitForLog("DiscoveryScan: StartScan returning 0\n", kPatience));
    kill(teskctl.pid(), SIGKILL);
    EXPECT_EQ(teskctl.Finish(), 128 + SIGKILL);
  }
  // The connection's end drops the handle: the scan is abandoned, and its
  // late answer finds nothing to go to.
  ASSERT_TRUE(process.WaitForLog("Dispatcher: Aborted ID 1\n", kPatience));
  ASSERT_TRUE(process.WaitForLog("Dispatcher: Unexpected request ID 1\n", kPatience));
  EXPECT_EQ(process.CountInLog("DiscoveryScan: ResponseReceived"), 0u);

  Client client(daemon.socket_path(), teskclient::kDiscoveryScanInterface);
  ASSERT_TRUE(client.ok());
  ASSERT_EQ(client.StartDiscovery({}), 0);
  ASSERT_TRUE(client.WaitForDelivery());
  std::lock_guard<std::mutex> lock(client.collected()->mutex);
  EXPECT_EQ(client.collected()->discovery.records.size(), 1u);
  EXPECT_TRUE(process.Running());
}

TEST(ScanConcurrency, InterruptedTeskctlAbandonsTheScanAndExits130) {
  for (int signal_number : {SIGINT, SIGTERM}) {
    SCOPED_TRACE(signal_number);
    ScenarioDaemon daemon("latency 5\nap bssid=02:00:00:00:00:01 channel=1\nfault drop *\n");
    tesk_test::DaemonProcess& process = daemon.daemon();
    Teskctl teskctl({"--socket", daemon.socket_path(), "--timeout", "600", "scan"});
    ASSERT_TRUE(process.WaitForLog("DiscoveryScan: StartScan returning 0\n", kPatience));
    kill(teskctl.pid(), signal_number);
    EXPECT_EQ(teskctl.Finish(), 130);
    EXPECT_TRUE(process.WaitForLog("Dispatcher: Aborted ID 1\n", kPatience));
  }
}

}  // namespace
}  // namespace e2e_scan
