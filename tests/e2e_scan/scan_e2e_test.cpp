// End to end, each part in its own process: the daemon as init starts it, the simulated location
// service following a scenario file, and clients over the IPC library (here, or teskctl).
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tesk/scan_records.h>

#include "teskclient/callback_object.h"
#include "teskclient/mac_address.h"
#include "teskclient/request_encoding.h"
#include "teskclient/session.h"
#include "tests/support/daemon_process.h"
#include "tests/support/emulator.h"
#include "tests/support/temp_dir.h"

extern char** environ;

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Bytes = std::vector<uint8_t>;
using Delivery = std::vector<Bytes>;  // its buffers; null ones empty

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
  const std::string& socket() const { return process->socket_path(); }

  tesk_test::TempDir dir;
  std::unique_ptr<tesk_test::DaemonProcess> process;
};

// One connection with one interface open; keeps every delivery.
class Client {
 public:
  Client(const std::string& socket, uint32_t interface_id) {
    Object root = kNullObject;
    if (teskclient::Connect(socket, &root) != 0) return;
    teskclient::OpenService(root, interface_id, &service_);
    ObjectRelease(root);
    callback_ =
        teskclient::MakeCallbackObject([state = state_](const ObjectArg* args, uint32_t counts) {
          std::lock_guard<std::mutex> lock(state->mutex);
          state->deliveries.emplace_back();
          for (unsigned i = 0; i < OBJECT_COUNTS_IN_BUFS(counts); ++i) {
            const auto* p = static_cast<const uint8_t*>(args[i].b.ptr);
            state->deliveries.back().push_back(p ? Bytes(p, p + args[i].b.size) : Bytes());
          }
          state->changed.notify_all();
        });
  }
  ~Client() {
    for (Object object : {handle_, callback_, service_}) {
      if (!IsNullObject(object)) ObjectRelease(object);
    }
  }
  int32_t Discover(const teskclient::DiscoveryScanPlan& plan = {}) {
    teskclient::EncodedDiscoveryScan request;
    std::string error;
    if (!teskclient::EncodeDiscoveryScan(plan, &request, &error)) return -1;
    return teskclient::StartDiscoveryScan(service_, request, callback_, &handle_);
  }
  int32_t Range(const teskclient::RangingScanPlan& plan) {
    return teskclient::StartRangingScan(service_, EncodeRangingScan(plan), callback_, &handle_);
  }
  void ReleaseHandle() {
    ObjectRelease(handle_);
    handle_ = kNullObject;
  }
  // Every delivery so far, after waiting up to `patience` for the first.
  std::vector<Delivery> Deliveries(std::chrono::milliseconds patience = kPatience) {
    std::unique_lock<std::mutex> lock(state_->mutex);
    state_->changed.wait_for(lock, patience, [&] { return !state_->deliveries.empty(); });
    return state_->deliveries;
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Delivery> deliveries;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
  Object service_ = kNullObject, callback_ = kNullObject, handle_ = kNullObject;
};

// teskctl in the background.
struct Teskctl {
  explicit Teskctl(std::vector<std::string> args) {
    args.insert(args.begin(), tesk_test::BuiltBinary("teskctl"));
    args = tesk_test::NativeCommand(std::move(args));
    std::vector<char*> argv = tesk_test::ArgumentPointers(args);
    if (posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ) != 0) pid_ = -1;
  }
  ~Teskctl() { Finish(SIGKILL); }
  // Sends `signal` and waits: the exit code, 128 + signal when killed.
  int Finish(int signal) {
    if (pid_ <= 0) return -1;
    kill(pid_, signal);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  pid_t pid_ = -1;
};

WifiScanMeasurement Record(const Bytes& records, size_t i) {
  WifiScanMeasurement r{};
  if (records.size() >= (i + 1) * sizeof r) memcpy(&r, records.data() + i * sizeof r, sizeof r);
  return r;
}

// The BSSIDs of the records in a record buffer, in order.
std::vector<std::string> Bssids(const Bytes& records) {
  std::vector<std::string> bssids;
  for (size_t i = 0; i < records.size() / sizeof(WifiScanMeasurement); ++i) {
    const WifiScanMeasurement r = Record(records, i);
    bssids.push_back(teskclient::FormatMacAddress(teskclient::FromWire(r.bssidLo24, r.bssidHi24)));
  }
  return bssids;
}

// True when the flat JSON line holds "key":value as a whole field.
bool HasField(const std::string& line, const std::string& key, const std::string& value) {
  const std::string field = "\"" + key + "\":" + value;
  const size_t at = line.find(field);
  return at != std::string::npos && std::string(",}").find(line[at + field.size()]) != line.npos;
}

struct Ap {
  std::string bssid, ssid_hex;
  int channel, frequency, rssi, interval, capability;
  std::string ies_hex;  // SSID, DS parameter set (the channel), then the rest
  std::string ssid_json, security, vendor_ouis;
};

// A plain name with an RSN element (CCMP, PSK), one that is not UTF-8, and one that needs
// JSON escapes with a vendor element.
// clang-format off
const Ap kAps[] = {
    {"02:11:22:33:44:01", "706c61696e", 6, 2437, -40, 100, 0x0431,
     "0005706c61696e03010630120100000fac040100000fac040100000fac02", "\"plain\"",
     "\"RSN:PSK/CCMP\"", "[]"},
    {"02:11:22:33:44:02", "fffe0041", 36, 5180, -70, 200, 0x0011, "0004fffe0041030124",
     "\"fffe0041\"", "\"none\"", "[]"},
    {"02:11:22:33:44:03", "7361792268695c", 11, 2462, -90, 1000, 0x0001,
     "00077361792268695c03010bdd050010180102", "\"say\\\"hi\\\\\"", "\"none\"", "[\"00:10:18\"]"}};
// clang-format on

// The access points; ranging finds the first plain and the second by its measurement.
std::string Neighbourhood() {
  std::ostringstream scenario;
  scenario << "latency 5\n";
  for (const Ap& ap : kAps) {
    scenario << "ap bssid=" << ap.bssid << " ssid=hex:" << ap.ssid_hex << " channel=" << ap.channel
             << " rssi=" << ap.rssi << " interval=" << ap.interval
             << " capability=" << ap.capability << " ies=" << ap.ies_hex << "\n";
  }
  scenario << "range " << kAps[0].bssid << " plain rssi=-71\nrange " << kAps[1].bssid
           << " distance=4200 spread=150 rssi=-52\n";
  return scenario.str();
}

// The three access points in the response's order, to a client in this process and to
// teskctl --json.
TEST(ScanEndToEnd, ThreeBeaconsInTheResponsesOrder) {
  ScenarioDaemon daemon(Neighbourhood());
  Client client(daemon.socket(), kInterfaceDiscoveryScan);
  teskclient::DiscoveryScanPlan plan;
  plan.params.band = 2;
  ASSERT_EQ(client.Discover(plan), 0);
  ASSERT_EQ(client.Deliveries().size(), 1u);
  const Delivery d = client.Deliveries()[0];
  ASSERT_EQ(d.size(), 4u);
  EXPECT_EQ(d[0].size(), 16u);
  EXPECT_EQ(d[1].size(), 480u);
  EXPECT_THAT(Bssids(d[1]), ElementsAre(kAps[0].bssid, kAps[1].bssid, kAps[2].bssid));

  const tesk_test::ProcessResult result = tesk_test::RunProcess(
      {tesk_test::BuiltBinary("teskctl"), "--socket", daemon.socket(), "--json", "scan"});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  std::vector<std::string> lines;
  std::istringstream out(result.out);
  for (std::string line; std::getline(out, line);) lines.push_back(line);
  ASSERT_EQ(lines.size(), 4u) << result.out;
  EXPECT_TRUE(HasField(lines[0], "records", "3")) << lines[0];
  for (size_t i = 0; i < 3; ++i) {
    const Ap& ap = kAps[i];
    const std::string& line = lines[i + 1];
    // clang-format off
    const std::pair<const char*, std::string> fields[] = {
        {"index", std::to_string(i)}, {"bssid", "\"" + ap.bssid + "\""}, {"ssid", ap.ssid_json},
        {"ssidHex", i == 1 ? "true" : "false"},
        {"ssidLength", std::to_string(ap.ssid_hex.size() / 2)},
        {"value8_8", std::to_string(ap.channel)}, {"value32_2", std::to_string(ap.frequency)},
        {"value32_5", std::to_string(static_cast<uint32_t>(ap.rssi))},
        {"value32_7", std::to_string(ap.interval)}, {"value32_6", std::to_string(ap.capability)},
        {"beaconIes", "\"" + ap.ies_hex + "\""}, {"channel", std::to_string(ap.channel)},
        {"security", ap.security}, {"vendorOuis", ap.vendor_ouis}};
    // clang-format on
    for (const auto& [key, value] : fields) EXPECT_TRUE(HasField(line, key, value)) << key;
  }
}

TEST(ScanEndToEnd, RangingAnswerWithOnePlainAndOneRangingMeasurement) {
  ScenarioDaemon daemon(Neighbourhood());
  Client client(daemon.socket(), kInterfaceRangingScan);
  teskclient::RangingScanPlan plan;
  plan.targets.resize(2);
  ASSERT_TRUE(teskclient::ParseMacAddress(kAps[0].bssid, &plan.targets[0].mac));
  ASSERT_TRUE(teskclient::ParseMacAddress(kAps[1].bssid, &plan.targets[1].mac));
  ASSERT_EQ(client.Range(plan), 0);
  ASSERT_EQ(client.Deliveries().size(), 1u);
  const Delivery d = client.Deliveries()[0];
  ASSERT_EQ(d.size(), 5u);
  EXPECT_EQ(d[0], Bytes(4, 0));  // status
  EXPECT_THAT(Bssids(d[1]), ElementsAre(kAps[0].bssid, kAps[1].bssid));
  const WifiScanMeasurement plain = Record(d[1], 0), ranged = Record(d[1], 1);
  EXPECT_EQ(
      std::make_tuple(plain.macCount, ranged.value32_4, ranged.firstMacIndex, ranged.macCount),
      std::make_tuple(0u, 4200u, 0u, 1u));
  EXPECT_EQ(d[4], (Bytes{0x02, 0x44, 0x33, 0, 0x22, 0x11, 0x02, 0}));  // the second's halves
}

// A scan abandoned before its answer, by releasing the handle or by the client's death:
// the late answer finds nothing to go to, and the daemon serves the next client.
TEST(ScanEndToEnd, AbandonedScanGetsNoDeliveryAndTheDaemonServesOn) {
  for (bool kill_teskctl : {false, true}) {
    SCOPED_TRACE(kill_teskctl ? "teskctl killed" : "handle released");
    ScenarioDaemon daemon("latency 3000\nap bssid=02:00:00:00:00:01 channel=1\n");
    tesk_test::DaemonProcess& process = *daemon.process;
    Client client(daemon.socket(), kInterfaceDiscoveryScan);
    if (kill_teskctl) {
      Teskctl teskctl({"--socket", daemon.socket(), "scan"});
      ASSERT_TRUE(process.WaitForLog("DiscoveryScan: StartScan returning 0\n", kPatience));
      EXPECT_EQ(teskctl.Finish(SIGKILL), 128 + SIGKILL);
    } else {
      ASSERT_EQ(client.Discover(), 0);
      client.ReleaseHandle();
    }
    ASSERT_TRUE(process.WaitForLog("Dispatcher: Aborted ID 1\n", kPatience));
    ASSERT_TRUE(process.WaitForLog("Dispatcher: Unexpected request ID 1\n", kPatience));
    EXPECT_EQ(process.CountInLog("DiscoveryScan: ResponseReceived"), 0u);
    EXPECT_TRUE(client.Deliveries(std::chrono::milliseconds(0)).empty());
    ASSERT_EQ(client.Discover(), 0);
    ASSERT_EQ(client.Deliveries().size(), 1u);
    EXPECT_THAT(Bssids(client.Deliveries()[0].at(1)), ElementsAre("02:00:00:00:00:01"));
  }
}

TEST(ScanEndToEnd, ConcurrentClientsEachGetTheirOwnResults) {
  ScenarioDaemon daemon(Neighbourhood());
  std::vector<std::vector<std::string>> seen(3);
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&, i] {
      Client client(daemon.socket(), kInterfaceDiscoveryScan);
      teskclient::DiscoveryScanPlan plan;  // each client asks for a different station
      plan.params.band = 2;
      plan.bssids.resize(1);
      teskclient::ParseMacAddress(kAps[i].bssid, &plan.bssids[0]);
      if (client.Discover(plan) != 0) return;
      for (const Delivery& delivery : client.Deliveries()) seen[i] = Bssids(delivery.at(1));
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int i = 0; i < 3; ++i) EXPECT_THAT(seen[i], ElementsAre(kAps[i].bssid)) << i;
}

TEST(TeskctlEndToEnd, ExitStatusSaysWhatWentWrong) {
  // fault (null: no daemon), arguments, signal sent once the scan started, exit code, message
  // clang-format off
  const std::tuple<const char*, std::vector<std::string>, int, int, const char*> cases[] = {
      {nullptr, {"scan"}, 0, 3, "cannot reach the daemon"},
      {"fault refuse *\n", {"scan"}, 0, 1, "did not start the scan"},
      {"fault refuse *\n", {"range", "02:00:00:00:00:01"}, 0, 1, "did not start the scan"},
      {"fault wrong-type *\n", {"scan"}, 0, 5, "status 5"},
      {"fault wrong-type *\n", {"range", "02:00:00:00:00:01"}, 0, 5, "status 5"},
      {"fault drop *\n", {"--timeout", "0.2", "scan"}, 0, 4, "no results within"},
      {"fault drop *\n", {"--timeout", "600", "scan"}, SIGINT, 130, ""},
      {"fault drop *\n", {"--timeout", "600", "scan"}, SIGTERM, 130, ""}};
  // clang-format on
  for (const auto& [fault, command, signal, exit_code, message] : cases) {
    SCOPED_TRACE(testing::Message() << command.back() << " " << (fault ? fault : "no daemon"));
    std::unique_ptr<ScenarioDaemon> daemon;
    tesk_test::TempDir empty;
    std::vector<std::string> args{"--socket", empty.Join("tesk")};
    if (fault != nullptr) {
      daemon = std::make_unique<ScenarioDaemon>(
          std::string("latency 5\nap bssid=02:00:00:00:00:01 channel=1\n") + fault);
      args[1] = daemon->socket();
    }
    args.insert(args.end(), command.begin(), command.end());
    if (signal != 0) {
      Teskctl teskctl(args);
      ASSERT_TRUE(daemon->process->WaitForLog("StartScan returning 0\n", kPatience));
      EXPECT_EQ(teskctl.Finish(signal), exit_code);
    } else {
      args.insert(args.begin(), tesk_test::BuiltBinary("teskctl"));
      const tesk_test::ProcessResult result = tesk_test::RunProcess(args);
      EXPECT_EQ(result.exit_code, exit_code) << result.err;
      EXPECT_THAT(result.err, HasSubstr(message));
    }
    if (exit_code == 4 || exit_code == 130) {  // giving up abandons the scan
      EXPECT_TRUE(daemon->process->WaitForLog("Dispatcher: Aborted ID 1\n", kPatience));
    }
  }
}

}  // namespace
