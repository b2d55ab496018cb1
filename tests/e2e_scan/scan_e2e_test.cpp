// End to end, each part in its own process: the daemon as init starts it, the simulated location
// service following a scenario file, and teskctl as the client.
#include <signal.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/daemon_process.h"
#include "tests/support/temp_dir.h"

namespace {

using ::testing::HasSubstr;

// Long enough for any machine; a test that waits this long has failed.
constexpr std::chrono::seconds kPatience{30};

// The daemon on its own socket, its location service following `scenario`.
struct ScenarioDaemon {
  explicit ScenarioDaemon(const std::string& scenario) {
    std::ofstream(dir.Join("scenario")) << scenario;
    process = std::make_unique<tesk_test::DaemonProcess>(
        tesk_test::DaemonProcess::Options{"", {"VELA_SCENARIO=" + dir.Join("scenario")}});
    EXPECT_TRUE(process->WaitUntilServing());
  }
  ~ScenarioDaemon() {  // fails the test when a sanitizer in the daemon reported anything
    EXPECT_EQ(process->Log().find("Sanitizer"), std::string::npos) << process->Log();
    EXPECT_EQ(process->Log().find("runtime error"), std::string::npos) << process->Log();
  }

  tesk_test::TempDir dir;
  std::unique_ptr<tesk_test::DaemonProcess> process;
};

// teskctl run to its end, its output split into lines.
struct Teskctl {
  explicit Teskctl(std::vector<std::string> args) {
    args.insert(args.begin(), tesk_test::BuiltBinary("teskctl"));
    result = tesk_test::RunProcess(args);
    std::istringstream out(result.out);
    for (std::string line; std::getline(out, line);) lines.push_back(line);
  }
  tesk_test::ProcessResult result;
  std::vector<std::string> lines;
};

// True when the flat JSON line holds "key":value as a whole field.
bool HasField(const std::string& line, const std::string& key, const std::string& value) {
  const std::string field = "\"" + key + "\":" + value;
  const size_t at = line.find(field);
  return at != std::string::npos && std::string(",}").find(line[at + field.size()]) != line.npos;
}

struct Ap {
  std::string bssid, ssid_hex;
  int channel;
  std::string ies_hex;  // SSID, DS parameter set (the channel), then the rest
  std::string ssid_json;
};

// A name in UTF-8 with an RSN element (CCMP, PSK), one that is not UTF-8 (so shown in hex),
// and one that needs JSON escapes with a vendor element.
const Ap kAps[] = {
    {"02:11:22:33:44:01", "636166c3a9", 6,
     "0005636166c3a903010630120100000fac040100000fac040100000fac02", "\"caf\xc3\xa9\""},
    {"02:11:22:33:44:02", "fffe0041", 36, "0004fffe0041030124", "\"fffe0041\""},
    {"02:11:22:33:44:03", "7361792268695c0a", 11, "00087361792268695c0a03010bdd050010180102",
     "\"say\\\"hi\\\\\\n\""}};

// The access points; ranging finds the first plain and the second by its measurement.
std::string Neighbourhood() {
  std::ostringstream scenario;
  scenario << "latency 5\n";
  for (const Ap& ap : kAps) {
    scenario << "ap bssid=" << ap.bssid << " ssid=hex:" << ap.ssid_hex << " channel=" << ap.channel
             << " ies=" << ap.ies_hex << "\n";
  }
  scenario << "range " << kAps[0].bssid << " plain rssi=-71\nrange " << kAps[1].bssid
           << " distance=4200 spread=150 rssi=-52\n";
  return scenario.str();
}

// Clients at once, each with its own results: the three access points in the response's order,
// their records and elements as the scenario says (what teskctl makes of the elements is its
// own tests' business); each station alone when asked for; a ranging answer with one
// plain and one ranging measurement.
TEST(ScanEndToEnd, ConcurrentClientsEachGetTheirOwnResults) {
  ScenarioDaemon daemon(Neighbourhood());
  std::vector<std::vector<std::string>> commands = {{"scan"},
                                                    {"range", kAps[0].bssid, kAps[1].bssid}};
  for (const Ap& ap : kAps) commands.push_back({"scan", "--band", "2", "--bssid", ap.bssid});
  std::vector<std::unique_ptr<Teskctl>> runs(commands.size());
  std::vector<std::thread> threads;
  for (size_t i = 0; i < commands.size(); ++i) {
    threads.emplace_back([&, i] {
      commands[i].insert(commands[i].begin(),
                         {"--socket", daemon.process->socket_path(), "--json"});
      runs[i] = std::make_unique<Teskctl>(commands[i]);
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& run : runs) ASSERT_EQ(run->result.exit_code, 0) << run->result.err;

  const std::vector<std::string>& scan = runs[0]->lines;
  ASSERT_EQ(scan.size(), 4u) << runs[0]->result.out;
  EXPECT_TRUE(HasField(scan[0], "records", "3")) << scan[0];
  for (size_t i = 0; i < 3; ++i) {
    const Ap& ap = kAps[i];
    // clang-format off
    const std::pair<const char*, std::string> fields[] = {
        {"bssid", "\"" + ap.bssid + "\""}, {"ssid", ap.ssid_json}, {"ssidHex", i == 1 ? "true" : "false"},
        {"value8_8", std::to_string(ap.channel)}, {"beaconIes", "\"" + ap.ies_hex + "\""}};
    // clang-format on
    for (const auto& [key, value] : fields) EXPECT_TRUE(HasField(scan[i + 1], key, value)) << key;
    ASSERT_EQ(runs[2 + i]->lines.size(), 2u) << runs[2 + i]->result.out;
    EXPECT_TRUE(HasField(runs[2 + i]->lines[1], "bssid", "\"" + ap.bssid + "\""));
  }

  const std::vector<std::string>& range = runs[1]->lines;
  ASSERT_EQ(range.size(), 3u) << runs[1]->result.out;
  // clang-format off
  const std::tuple<size_t, const char*, std::string> fields[] = {
      {0, "scanStatus", "0"}, {0, "macs", "1"}, {1, "bssid", "\"" + kAps[0].bssid + "\""},
      {1, "macCount", "0"}, {2, "value32_4", "4200"}, {2, "macs", "[\"" + kAps[1].bssid + "\"]"}};
  // clang-format on
  for (const auto& [line, key, value] : fields) {
    EXPECT_TRUE(HasField(range[line], key, value)) << range[line];
  }
}

// A scan abandoned before its answer, by a client that is interrupted (and
// releases its handle) or dies: the late answer finds nothing to go to, and
// the daemon serves the next client.
TEST(ScanEndToEnd, AbandonedScanGetsNoDeliveryAndTheDaemonServesOn) {
  for (const auto& [signal, exit_code] : {std::pair{SIGINT, 130}, std::pair{SIGKILL, 137}}) {
    SCOPED_TRACE(strsignal(signal));
    ScenarioDaemon daemon("latency 3000\nap bssid=02:00:00:00:00:01 channel=1\n");
    const std::string socket = daemon.process->socket_path();
    const pid_t pid =
        tesk_test::StartProcess({tesk_test::BuiltBinary("teskctl"), "--socket", socket, "scan"});
    EXPECT_TRUE(daemon.process->WaitForLog("StartScan returning 0\n", kPatience));
    kill(pid, signal);
    EXPECT_EQ(tesk_test::AwaitExit(pid), exit_code);
    ASSERT_TRUE(daemon.process->WaitForLog("Dispatcher: Aborted ID 1\n", kPatience));
    ASSERT_TRUE(daemon.process->WaitForLog("Dispatcher: Unexpected request ID 1\n", kPatience));
    EXPECT_EQ(daemon.process->CountInLog("DiscoveryScan: ResponseReceived"), 0u);
    const Teskctl scan({"--socket", socket, "scan"});
    EXPECT_EQ(scan.result.exit_code, 0) << scan.result.err;
    EXPECT_THAT(scan.result.out, HasSubstr("02:00:00:00:00:01"));
  }
}

}  // namespace
