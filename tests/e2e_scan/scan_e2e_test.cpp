// End to end, each part in its own process: the daemon as init starts it, the simulated location
// service following a scenario file, and teskctl as the client.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

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
#include "tests/support/emulator.h"
#include "tests/support/temp_dir.h"

extern char** environ;

namespace {

using ::testing::HasSubstr;

// Long enough for any machine; a test that waits this long has failed.
constexpr std::chrono::seconds kPatience{30};

// The daemon on its own socket, its location service following `scenario`.
struct ScenarioDaemon {
  explicit ScenarioDaemon(const std::string& scenario) {
    std::ofstream(dir.Join("scenario")) << scenario;
    tesk_test::DaemonProcess::Options options;
    options.environment.push_back("VELA_SCENARIO=" + dir.Join("scenario"));
    process = std::make_unique<tesk_test::DaemonProcess>(options);
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

// teskctl in the background until `signal` ends it: the exit code, 128 + signal when killed.
int SignalledTeskctl(std::vector<std::string> args, const ScenarioDaemon& daemon, int signal) {
  args.insert(args.begin(), tesk_test::BuiltBinary("teskctl"));
  args = tesk_test::NativeCommand(std::move(args));
  std::vector<char*> argv = tesk_test::ArgumentPointers(args);
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
  EXPECT_TRUE(daemon.process->WaitForLog("StartScan returning 0\n", kPatience));
  kill(pid, signal);
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// True when the flat JSON line holds "key":value as a whole field.
bool HasField(const std::string& line, const std::string& key, const std::string& value) {
  const std::string field = "\"" + key + "\":" + value;
  const size_t at = line.find(field);
  return at != std::string::npos && std::string(",}").find(line[at + field.size()]) != line.npos;
}

struct Ap {
  std::string bssid, ssid_hex;
  int channel, rssi;
  std::string ies_hex;  // SSID, DS parameter set (the channel), then the rest
  std::string ssid_json, security, vendor_ouis;
};

// A plain name with an RSN element (CCMP, PSK), one that is not UTF-8, and one that needs
// JSON escapes with a vendor element.
const Ap kAps[] = {
    {"02:11:22:33:44:01", "706c61696e", 6, -40,
     "0005706c61696e03010630120100000fac040100000fac040100000fac02", "\"plain\"",
     "\"RSN:PSK/CCMP\"", "[]"},
    {"02:11:22:33:44:02", "fffe0041", 36, -70, "0004fffe0041030124", "\"fffe0041\"", "\"none\"",
     "[]"},
    {"02:11:22:33:44:03", "7361792268695c", 11, -90, "00077361792268695c03010bdd050010180102",
     "\"say\\\"hi\\\\\"", "\"none\"", "[\"00:10:18\"]"}};

// The access points; ranging finds the first plain and the second by its measurement.
std::string Neighbourhood() {
  std::ostringstream scenario;
  scenario << "latency 5\n";
  for (const Ap& ap : kAps) {
    scenario << "ap bssid=" << ap.bssid << " ssid=hex:" << ap.ssid_hex << " channel=" << ap.channel
             << " rssi=" << ap.rssi << " ies=" << ap.ies_hex << "\n";
  }
  scenario << "range " << kAps[0].bssid << " plain rssi=-71\nrange " << kAps[1].bssid
           << " distance=4200 spread=150 rssi=-52\n";
  return scenario.str();
}

// Clients at once, each with its own results: the three access points in the response's order,
// every field as the beacon says; each station alone when asked for; a ranging answer with one
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
        {"value8_8", std::to_string(ap.channel)}, {"value32_5", std::to_string(uint32_t(ap.rssi))},
        {"beaconIes", "\"" + ap.ies_hex + "\""}, {"channel", std::to_string(ap.channel)},
        {"security", ap.security}, {"vendorOuis", ap.vendor_ouis}};
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

// A scan abandoned before its answer, by a client that gives up, is interrupted or dies: the
// late answer finds nothing to go to, and the daemon serves the next client.
TEST(ScanEndToEnd, AbandonedScanGetsNoDeliveryAndTheDaemonServesOn) {
  const std::pair<int, int> cases[] = {{0, 4}, {SIGINT, 130}, {SIGTERM, 130}, {SIGKILL, 137}};
  for (const auto& [signal, exit_code] : cases) {
    SCOPED_TRACE(signal == 0 ? "timed out" : strsignal(signal));
    ScenarioDaemon daemon("latency 3000\nap bssid=02:00:00:00:00:01 channel=1\n");
    const std::string socket = daemon.process->socket_path();
    if (signal == 0) {
      const Teskctl scan({"--socket", socket, "--timeout", "0.5", "scan"});
      EXPECT_EQ(scan.result.exit_code, exit_code);
      EXPECT_THAT(scan.result.err, HasSubstr("no results within"));
    } else {
      EXPECT_EQ(SignalledTeskctl({"--socket", socket, "scan"}, daemon, signal), exit_code);
    }
    ASSERT_TRUE(daemon.process->WaitForLog("Dispatcher: Aborted ID 1\n", kPatience));
    ASSERT_TRUE(daemon.process->WaitForLog("Dispatcher: Unexpected request ID 1\n", kPatience));
    EXPECT_EQ(daemon.process->CountInLog("DiscoveryScan: ResponseReceived"), 0u);
    const Teskctl scan({"--socket", socket, "scan"});
    EXPECT_EQ(scan.result.exit_code, 0) << scan.result.err;
    EXPECT_THAT(scan.result.out, HasSubstr("02:00:00:00:00:01"));
  }
}

}  // namespace
