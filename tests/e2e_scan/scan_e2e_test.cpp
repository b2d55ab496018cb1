// End to end, each part in its own process: the daemon started as init
// starts it, the simulated location service following a scenario file, and
// clients over the IPC library (in this process, or teskctl).
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "teskclient/mac_address.h"
#include "teskclient/session.h"
#include "tests/e2e_scan/e2e_scan_support.h"

namespace e2e_scan {
namespace {

using ::testing::HasSubstr;

struct Ap {
  std::string bssid;
  Bytes ssid;
  int channel;
  uint32_t frequency;
  int rssi;
  int interval;
  int capability;
  Bytes extra_ies;

  Bytes Ies() const {
    Bytes ies = Ie(0, ssid);
    const Bytes ds = Ie(3, {static_cast<uint8_t>(channel)});
    ies.insert(ies.end(), ds.begin(), ds.end());
    ies.insert(ies.end(), extra_ies.begin(), extra_ies.end());
    return ies;
  }
  std::string Line() const {
    return "ap bssid=" + bssid + " ssid=hex:" + Hex(ssid) + " channel=" + std::to_string(channel) +
           " rssi=" + std::to_string(rssi) + " interval=" + std::to_string(interval) +
           " capability=" + std::to_string(capability) + " ies=" + Hex(Ies()) + "\n";
  }
};

const Bytes kRsn = {1,    0,    0x00, 0x0F, 0xAC, 4,    1,    0,    0x00,
                    0x0F, 0xAC, 4,    1,    0,    0x00, 0x0F, 0xAC, 2};

// A plain name, one that is not UTF-8, and one that needs JSON escapes.
const std::vector<Ap> kAps = {
    {"02:11:22:33:44:01", {'p', 'l', 'a', 'i', 'n'}, 6, 2437, -40, 100, 0x0431, Ie(48, kRsn)},
    {"02:11:22:33:44:02", {0xFF, 0xFE, 0x00, 0x41}, 36, 5180, -70, 200, 0x0011, {}},
    {"02:11:22:33:44:03",
     {'s', 'a', 'y', '"', 'h', 'i', '\\'},
     11,
     2462,
     -90,
     1000,
     0x0001,
     Ie(221, {0x00, 0x10, 0x18, 1, 2})},
};

std::string ThreeApScenario() {
  std::string text = "latency 5\n";
  for (const Ap& ap : kAps) text += ap.Line();
  return text;
}

TEST(ScanEndToEnd, ThreeBeaconsArriveAs480BytesInTheResponsesOrder) {
  ScenarioDaemon daemon(ThreeApScenario());
  Client client(daemon.socket_path(), teskclient::kDiscoveryScanInterface);
  ASSERT_TRUE(client.ok());
  teskclient::DiscoveryScanPlan plan;
  plan.params.band = 2;
  ASSERT_EQ(client.StartDiscovery(plan), 0);
  ASSERT_TRUE(client.WaitForDelivery());

  const auto collected = client.collected();
  std::lock_guard<std::mutex> lock(collected->mutex);
  EXPECT_EQ(collected->deliveries, 1);
  ASSERT_TRUE(collected->decoded);
  ASSERT_EQ(collected->sizes.size(), 4u);
  EXPECT_EQ(collected->sizes[0], 16u);
  EXPECT_EQ(collected->sizes[1], 480u);
  const teskclient::DiscoveryResults& results = collected->discovery;
  EXPECT_EQ(results.header.scanStatus, 0);
  ASSERT_EQ(results.records.size(), 3u);
  for (size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(kAps[i].bssid);
    const WifiScanMeasurement& record = results.records[i];
    EXPECT_EQ(
        teskclient::FormatMacAddress(teskclient::FromWire(record.bssidLo24, record.bssidHi24)),
        kAps[i].bssid);
    const teskclient::RecordParts parts = teskclient::PartsOf(results, record);
    ASSERT_TRUE(parts.ies.valid);
    EXPECT_EQ(Bytes(parts.ies.data, parts.ies.data + parts.ies.size), kAps[i].Ies());
  }
}

TEST(ScanEndToEnd, RangingAnswerWithOnePlainAndOneRangingMeasurement) {
  ScenarioDaemon daemon(
      "latency 5\n"
      "ap bssid=02:00:00:00:0a:01 ssid=plain channel=1\n"
      "ap bssid=02:00:00:00:0a:02 ssid=ftm channel=6\n"
      "range 02:00:00:00:0a:01 plain rssi=-71\n"
      "range 02:00:00:00:0a:02 distance=4200 spread=150 rssi=-52\n");
  Client client(daemon.socket_path(), teskclient::kRangingScanInterface);
  ASSERT_TRUE(client.ok());
  teskclient::RangingScanPlan plan;
  plan.ts = 1234;
  for (const char* mac : {"02:00:00:00:0a:01", "02:00:00:00:0a:02"}) {
    teskclient::RangingTargetPlan target;
    ASSERT_TRUE(teskclient::ParseMacAddress(mac, &target.mac));
    plan.targets.push_back(target);
  }
  ASSERT_EQ(client.StartRanging(plan), 0);
  ASSERT_TRUE(client.WaitForDelivery());

  const auto collected = client.collected();
  std::lock_guard<std::mutex> lock(collected->mutex);
  ASSERT_TRUE(collected->decoded);
  EXPECT_EQ(collected->counts, 5u);
  const teskclient::RangingResults& results = collected->ranging;
  EXPECT_EQ(results.scanStatus, 0u);
  ASSERT_EQ(results.records.size(), 2u);
  const WifiScanMeasurement& plain = results.records[0];
  const WifiScanMeasurement& ranged = results.records[1];
  EXPECT_EQ(teskclient::FormatMacAddress(teskclient::FromWire(plain.bssidLo24, plain.bssidHi24)),
            "02:00:00:00:0a:01");
  EXPECT_EQ(plain.macCount, 0u);
  EXPECT_EQ(teskclient::FormatMacAddress(teskclient::FromWire(ranged.bssidLo24, ranged.bssidHi24)),
            "02:00:00:00:0a:02");
  EXPECT_EQ(ranged.value32_4, 4200u);
  EXPECT_EQ(ranged.firstMacIndex, 0u);
  ASSERT_GE(ranged.macCount, 1u);
  const teskclient::RecordParts parts = teskclient::PartsOf(results, ranged);
  ASSERT_TRUE(parts.macs_valid);
  EXPECT_EQ(teskclient::FormatMacAddress(teskclient::FromWire(parts.macs[0])), "02:00:00:00:0a:02");
}

TEST(ScanEndToEnd, HandleReleasedBeforeTheResponseMeansNoDelivery) {
  // The answer comes long after the release below.
  ScenarioDaemon daemon("latency 3000\nap bssid=02:00:00:00:00:01 channel=1\n");
  Client client(daemon.socket_path(), teskclient::kDiscoveryScanInterface);
  ASSERT_TRUE(client.ok());
  ASSERT_EQ(client.StartDiscovery({}), 0);
  client.ReleaseHandle();

  tesk_test::DaemonProcess& process = daemon.daemon();
  ASSERT_TRUE(process.WaitForLog("Dispatcher: Aborted ID 1\n", kPatience));
  ASSERT_TRUE(process.WaitForLog("Dispatcher: Unexpected request ID 1\n", kPatience));
  const std::string log = process.Log();
  EXPECT_LT(log.find("Aborted ID 1"), log.find("Unexpected request ID 1"));
  EXPECT_EQ(process.CountInLog("DiscoveryScan: ResponseReceived"), 0u);
  std::lock_guard<std::mutex> lock(client.collected()->mutex);
  EXPECT_EQ(client.collected()->deliveries, 0);
}

TEST(TeskctlEndToEnd, JsonOutputMatchesTheScenarioFieldForField) {
  ScenarioDaemon daemon(ThreeApScenario());
  const tesk_test::ProcessResult result = tesk_test::RunProcess(
      {tesk_test::BuiltBinary("teskctl"), "--socket", daemon.socket_path(), "--json", "scan"});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  const std::vector<std::string> lines = Lines(result.out);
  ASSERT_EQ(lines.size(), 4u) << result.out;
  EXPECT_EQ(JsonField(lines[0], "type"), "\"discovery_response\"");
  EXPECT_EQ(JsonField(lines[0], "scanStatus"), "0");
  EXPECT_EQ(JsonField(lines[0], "records"), "3");

  const char* const expected_ssids[] = {"\"plain\"", "\"fffe0041\"", "\"say\\\"hi\\\\\""};
  const char* const expected_security[] = {"\"RSN:PSK/CCMP\"", "\"none\"", "\"none\""};
  const char* const expected_ouis[] = {"[]", "[]", "[\"00:10:18\"]"};
  for (size_t i = 0; i < kAps.size(); ++i) {
    SCOPED_TRACE(kAps[i].bssid);
    const std::string& line = lines[i + 1];
    const Ap& ap = kAps[i];
    EXPECT_EQ(JsonField(line, "index"), std::to_string(i));
    EXPECT_EQ(JsonField(line, "bssid"), "\"" + ap.bssid + "\"");
    EXPECT_EQ(JsonField(line, "ssid"), expected_ssids[i]);
    EXPECT_EQ(JsonField(line, "ssidHex"), i == 1 ? "true" : "false");
    EXPECT_EQ(JsonField(line, "ssidLength"), std::to_string(ap.ssid.size()));
    EXPECT_EQ(JsonField(line, "value8_8"), std::to_string(ap.channel));
    EXPECT_EQ(JsonField(line, "value32_2"), std::to_string(ap.frequency));
    EXPECT_EQ(JsonField(line, "value32_5"), std::to_string(static_cast<uint32_t>(ap.rssi)));
    EXPECT_EQ(JsonField(line, "value32_7"), std::to_string(ap.interval));
    EXPECT_EQ(JsonField(line, "value32_6"), std::to_string(ap.capability));
    EXPECT_EQ(JsonField(line, "beaconIes"), "\"" + Hex(ap.Ies()) + "\"");
    EXPECT_EQ(JsonField(line, "channel"), std::to_string(ap.channel));
    EXPECT_EQ(JsonField(line, "security"), expected_security[i]);
    EXPECT_THAT(line, HasSubstr("\"vendorOuis\":" + std::string(expected_ouis[i])));
  }
}

TEST(TeskctlEndToEnd, ExitStatusSaysWhatWentWrong) {
  struct Case {
    const char* name;
    const char* fault;  // null: no daemon at all
    std::vector<std::string> args;
    int exit_code;
    const char* message;
  } cases[] = {
      {"daemon not reachable", nullptr, {"scan"}, 3, "cannot reach the daemon"},
      {"bad command line", "", {"scan", "--bssid", "nonsense"}, 64, "bad --bssid"},
      {"scan not started", "fault refuse *\n", {"scan"}, 1, "did not start the scan"},
      {"ranging not started",
       "fault refuse *\n",
       {"range", "02:00:00:00:00:01"},
       1,
       "did not start the scan"},
      {"unusable answer", "fault wrong-type *\n", {"scan"}, 5, "status 5"},
      {"unusable ranging answer",
       "fault wrong-type *\n",
       {"range", "02:00:00:00:00:01"},
       5,
       "status 5"},
      {"no answer", "fault drop *\n", {"--timeout", "0.2", "scan"}, 4, "no results within"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<ScenarioDaemon> daemon;
    tesk_test::TempDir empty;
    std::string socket = empty.Join("tesk");
    if (c.fault != nullptr) {
      daemon = std::make_unique<ScenarioDaemon>(
          std::string("latency 5\nap bssid=02:00:00:00:00:01 channel=1\n") + c.fault);
      socket = daemon->socket_path();
    }
    std::vector<std::string> argv{tesk_test::BuiltBinary("teskctl"), "--socket", socket};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    const tesk_test::ProcessResult result = tesk_test::RunProcess(argv);
    EXPECT_EQ(result.exit_code, c.exit_code) << result.err;
    EXPECT_THAT(result.err, HasSubstr(c.message));
    if (c.exit_code == 4) {
      // Giving up releases the handle: the daemon forgets the scan.
      EXPECT_TRUE(daemon->daemon().WaitForLog("Dispatcher: Aborted ID 1\n", kPatience));
    }
  }
}

}  // namespace
}  // namespace e2e_scan
