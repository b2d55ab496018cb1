// The simulated location service behind VELAClient: answers, faults, the
// delivery thread and the test control.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host/libvela_client/scenario.h"
#include "ky_loc_fw/log.h"
#include "ky_loc_fw/log_capture.h"
#include "ky_loc_fw/vela_client.h"
#include "ky_loc_fw/vela_test_control.h"
#include "tests/vela/recording_listener.h"

namespace ky_loc_fw {
namespace {

using Request = VELADiscoveryScanRequest;
using vela_testing::RecordingListener;
using vela_testing::SeenResponse;

constexpr uint64_t kAlpha = 0x020000000001;
constexpr uint64_t kBeta = 0x020000000002;
constexpr uint64_t kGamma = 0x020000000003;
constexpr uint64_t kDelta = 0x020000000004;
constexpr uint64_t kHidden = 0x020000000005;

const char kStreet[] =
    "latency 0\n"
    "ap bssid=02:00:00:00:00:01 ssid=alpha channel=1\n"
    "ap bssid=02:00:00:00:00:02 ssid=beta channel=6\n"
    "ap bssid=02:00:00:00:00:03 ssid=gamma channel=36\n"
    "ap bssid=02:00:00:00:00:04 ssid=delta channel=149 cached\n"
    "ap bssid=02:00:00:00:00:05 channel=11 hidden\n"
    "range 02:00:00:00:00:01 distance=1500 spread=30\n"
    "range 02:00:00:00:00:02 plain\n";

VELAMacAddress Mac(uint64_t mac48) {
  return vela_test::MakeMac(static_cast<uint32_t>(mac48 >> 24), mac48 & 0xFFFFFF);
}

std::set<uint64_t> Bssids(const SeenResponse& r) {
  std::set<uint64_t> out;
  for (const auto& m : r.measurements) out.insert(m.bssid);
  return out;
}

struct LogLine {
  char letter;
  std::string tag, text;
};

class LogCapture {
 public:
  LogCapture() { log_set_sink(&LogCapture::Sink, this, true); }
  ~LogCapture() { log_set_sink(nullptr, nullptr, false); }
  std::vector<LogLine> Lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  bool Has(char letter, const std::string& text) {
    for (const LogLine& l : Lines()) {
      if (l.letter == letter && l.tag == "vela" && l.text == text) return true;
    }
    return false;
  }

 private:
  static void Sink(void* context, char letter, const char* tag, const char* text) {
    auto* self = static_cast<LogCapture*>(context);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.push_back(LogLine{letter, tag, text});
  }
  std::mutex mutex_;
  std::vector<LogLine> lines_;
};

class VelaClientTest : public ::testing::Test {
 protected:
  void SetUp() override { vela_test::Reset(); }
  void TearDown() override {
    client_.reset();
    vela_test::Reset();
    vela_test::SetScenarioText(nullptr);
  }

  void Start(const std::string& scenario) {
    client_.reset();
    vela_test::SetScenarioText(scenario.c_str());
    client_.reset(VELAClient::createInstance(&listener_, true, VELAClient::LOG_LEVEL_INFO));
    ASSERT_NE(client_, nullptr);
  }

  // Sends and deletes the request, as the daemon does.
  int Send(VELARequest* request) {
    std::unique_ptr<VELARequest> owned(request);
    return client_->sendRequest(owned.get());
  }

  SeenResponse SendAndWait(VELARequest* request) {
    const size_t before = listener_.Seen().size();
    EXPECT_EQ(Send(request), 0);
    return listener_.WaitFor(before + 1)[before];
  }

  RecordingListener listener_;
  std::unique_ptr<VELAClient> client_;
};

Request* Fresh(unsigned int id, Request::eBand band, bool scan_flag = false) {
  return Request::createFreshScanRequest(id, band, Request::SCAN_TYPE_ACTIVE, 0, 0,
                                         Request::REQUEST_MODE_NORMAL, scan_flag);
}

TEST_F(VelaClientTest, FreshScansHonourBandChannelsAndFilters) {
  struct Case {
    const char* name;
    std::function<Request*(unsigned int)> make;
    std::set<uint64_t> expected;
  } cases[] = {
      {"2.4 GHz", [](unsigned id) { return Fresh(id, Request::BAND_2_4_GHZ); }, {kAlpha, kBeta}},
      {"2.4 GHz with hidden",
       [](unsigned id) { return Fresh(id, Request::BAND_2_4_GHZ, true); },
       {kAlpha, kBeta, kHidden}},
      {"5 GHz", [](unsigned id) { return Fresh(id, Request::BAND_5_GHZ); }, {kGamma, kDelta}},
      {"all",
       [](unsigned id) { return Fresh(id, Request::BAND_ALL); },
       {kAlpha, kBeta, kGamma, kDelta}},
      {"channel 6 and 5745 MHz",
       [](unsigned id) {
         ky_loc_fw::vector<VELAChannelInfo> channels;
         channels.push_back(VELAChannelInfo(6));
         channels.push_back(VELAChannelInfo(5745));
         return Request::createFreshScanRequest(id, channels, Request::SCAN_TYPE_PASSIVE, 0, 0,
                                                Request::REQUEST_MODE_NORMAL, false);
       },
       {kBeta, kDelta}},
      {"ssid filter",
       [](unsigned id) {
         Request* r = Fresh(id, Request::BAND_ALL);
         ky_loc_fw::vector<VELASsid> ssids;
         ssids.push_back(vela_test::MakeSsid("gamma"));
         ssids.push_back(vela_test::MakeSsid("alpha"));
         ssids.push_back(vela_test::MakeSsid("alph"));
         r->ssidFilter = ssids;
         return r;
       },
       {kAlpha, kGamma}},
      {"bssid filter",
       [](unsigned id) {
         Request* r = Fresh(id, Request::BAND_ALL);
         r->bssidFilter.push_back(Mac(kBeta));
         r->bssidFilter.push_back(Mac(kDelta));
         return r;
       },
       {kBeta, kDelta}},
      {"both filters",
       [](unsigned id) {
         Request* r = Fresh(id, Request::BAND_ALL);
         r->ssidFilter.push_back(vela_test::MakeSsid("beta"));
         r->bssidFilter.push_back(Mac(kBeta));
         r->bssidFilter.push_back(Mac(kGamma));
         return r;
       },
       {kBeta}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Start(kStreet);
    const SeenResponse r = SendAndWait(c.make(7));
    EXPECT_EQ(r.type, VELAResponse::RESPONSE_TYPE_DISCOVERY_SCAN);
    EXPECT_EQ(r.id, 7u);
    EXPECT_EQ(r.status, VELAResponse::SCAN_STATUS_SUCCESS);
    EXPECT_EQ(r.source, VELADiscoveryScanResponse::SCAN_SOURCE_FRESH);
    EXPECT_EQ(Bssids(r), c.expected);
  }
}

TEST_F(VelaClientTest, CacheAnswersOnlyWhatWasSeen) {
  Start(kStreet);
  // Before any fresh scan only the access point marked cached is known.
  SeenResponse r = SendAndWait(Request::createCacheOnlyRequest(1, Request::BAND_ALL, 0, 0, true));
  EXPECT_EQ(r.source, VELADiscoveryScanResponse::SCAN_SOURCE_CACHE);
  EXPECT_EQ(Bssids(r), std::set<uint64_t>{kDelta});

  // Enough cached results: the cache answers; too few: a fresh scan does.
  r = SendAndWait(Request::createCacheFallbackRequest(
      2, Request::BAND_ALL, Request::SCAN_TYPE_ACTIVE, 0, 1, 0, false, false));
  EXPECT_EQ(r.source, VELADiscoveryScanResponse::SCAN_SOURCE_CACHE);
  EXPECT_EQ(Bssids(r), std::set<uint64_t>{kDelta});
  r = SendAndWait(Request::createCacheFallbackRequest(
      3, Request::BAND_5_GHZ, Request::SCAN_TYPE_ACTIVE, 0, 2, 0, false, false));
  EXPECT_EQ(r.source, VELADiscoveryScanResponse::SCAN_SOURCE_FRESH);
  EXPECT_EQ(Bssids(r), (std::set<uint64_t>{kGamma, kDelta}));

  // The fresh 2.4 GHz scan fills the cache, hidden access points included.
  SendAndWait(Fresh(4, Request::BAND_2_4_GHZ));
  r = SendAndWait(Request::createCacheOnlyRequest(5, Request::BAND_ALL, 0, 0, false));
  EXPECT_EQ(Bssids(r), (std::set<uint64_t>{kAlpha, kBeta, kGamma, kDelta}));
  r = SendAndWait(Request::createCacheOnlyRequest(6, Request::BAND_2_4_GHZ, 0, 0, true));
  EXPECT_EQ(Bssids(r), (std::set<uint64_t>{kAlpha, kBeta, kHidden}));

  // The age filter leaves out what is older (only a lower bound on the age
  // matters here, so the sleep cannot make this flaky).
  usleep(5000);
  r = SendAndWait(Request::createCacheOnlyRequest(7, Request::BAND_ALL, 1, 0, false));
  EXPECT_TRUE(r.measurements.empty());
  r = SendAndWait(Request::createCacheOnlyRequest(8, Request::BAND_ALL, 3600000, 0, false));
  EXPECT_EQ(r.measurements.size(), 4u);
}

TEST_F(VelaClientTest, FreshScanLongerThanTheTimeoutTimesOut) {
  Start(std::string(kStreet) + "latency 30\n");
  SeenResponse r = SendAndWait(Request::createFreshScanRequest(
      1, Request::BAND_ALL, Request::SCAN_TYPE_ACTIVE, 0, 10, Request::REQUEST_MODE_NORMAL, false));
  EXPECT_EQ(r.status, VELAResponse::SCAN_STATUS_TIMEOUT);
  EXPECT_TRUE(r.measurements.empty());
  r = SendAndWait(Request::createFreshScanRequest(2, Request::BAND_ALL, Request::SCAN_TYPE_ACTIVE,
                                                  0, 0, Request::REQUEST_MODE_NORMAL, false));
  EXPECT_EQ(r.status, VELAResponse::SCAN_STATUS_SUCCESS);
  EXPECT_EQ(r.measurements.size(), 4u);
}

TEST_F(VelaClientTest, RangingAnswersEveryTarget) {
  Start(kStreet);
  VELANodeInfo known;
  known.mac = Mac(kAlpha);
  known.peerMac = Mac(0x0a0b0c0d0e0f);
  VELANodeInfo plain;
  plain.mac = Mac(kBeta);
  VELANodeInfo stranger;
  stranger.mac = Mac(0x001122334455);
  stranger.nodeValue1 = 5200;

  ky_loc_fw::vector<VELANodeInfo> nodes;
  nodes.push_back(known);
  nodes.push_back(plain);
  nodes.push_back(stranger);
  SeenResponse r = SendAndWait(new VELARangingScanRequest(9, nodes, 77));
  ASSERT_EQ(r.type, VELAResponse::RESPONSE_TYPE_RANGING_SCAN);
  EXPECT_EQ(r.status, VELAResponse::SCAN_STATUS_SUCCESS);
  ASSERT_EQ(r.measurements.size(), 3u);
  EXPECT_EQ(r.measurements[0].type, VELAScanMeasurement::MEASUREMENT_TYPE_RANGING);
  EXPECT_EQ(r.measurements[0].distanceMm, 1500u);
  EXPECT_EQ(r.measurements[0].macList, (std::vector<uint64_t>{kAlpha, 0x0a0b0c0d0e0f}));
  EXPECT_EQ(r.measurements[0].ssid, "alpha");
  EXPECT_EQ(r.measurements[0].frequency, 2412u);
  EXPECT_EQ(r.measurements[1].type, VELAScanMeasurement::MEASUREMENT_TYPE_SCAN);
  EXPECT_EQ(r.measurements[1].bssid, kBeta);
  EXPECT_EQ(r.measurements[2].type, VELAScanMeasurement::MEASUREMENT_TYPE_RANGING);
  EXPECT_EQ(r.measurements[2].macList, std::vector<uint64_t>{0x001122334455});
  EXPECT_GE(r.measurements[2].distanceMm, 1000u);
  EXPECT_LT(r.measurements[2].distanceMm, 30000u);
  EXPECT_EQ(r.measurements[2].frequency, 5200u);
  EXPECT_EQ(r.measurements[2].channel, 40);

  ky_loc_fw::vector<VELAPeriodicNodeInfo> periodic;
  VELAPeriodicNodeInfo p;
  p.mac = Mac(kAlpha);
  periodic.push_back(p);
  r = SendAndWait(new VELAPeriodicRangingScanRequest(10, periodic, 78));
  ASSERT_EQ(r.measurements.size(), 1u);
  EXPECT_EQ(r.measurements[0].distanceMm, 1500u);
  EXPECT_EQ(r.measurements[0].macList, std::vector<uint64_t>{kAlpha});
}

TEST_F(VelaClientTest, DefaultNeighbourhoodAnswersWithRealisticBeacons) {
  vela_sim::Scenario scenario;
  std::string error;
  ASSERT_TRUE(vela_sim::ParseScenario(vela_test::DefaultScenarioText(), &scenario, &error));
  vela_test::SetScenarioText(nullptr);
  unsetenv("VELA_SCENARIO");
  client_.reset(VELAClient::createInstance(&listener_, true, VELAClient::LOG_LEVEL_INFO));
  ASSERT_NE(client_, nullptr);
  const SeenResponse r = SendAndWait(Fresh(1, Request::BAND_ALL));
  ASSERT_EQ(r.measurements.size(), scenario.aps.size());
  size_t with_rsn = 0;
  for (size_t i = 0; i < r.measurements.size(); ++i) {
    const auto& m = r.measurements[i];
    const vela_sim::ScenarioAp& ap = scenario.aps[i];
    SCOPED_TRACE(ap.line);
    EXPECT_EQ(m.type, VELAScanMeasurement::MEASUREMENT_TYPE_FULL_BEACON);
    EXPECT_EQ(m.bssid, ap.bssid);
    EXPECT_EQ(m.ssid, std::string(ap.ssid.begin(), ap.ssid.end()));
    EXPECT_EQ(m.channel, ap.channel);
    EXPECT_EQ(m.frequency, ap.frequencyMhz);
    EXPECT_EQ(m.rssi, ap.rssiDbm);
    EXPECT_EQ(m.detailCount, 2u);
    EXPECT_EQ(m.rawByteCount, 12u);
    std::vector<uint8_t> joined;
    for (const auto& e : m.elements) {
      joined.push_back(e.first);
      joined.push_back(static_cast<uint8_t>(e.second.size()));
      joined.insert(joined.end(), e.second.begin(), e.second.end());
      if (e.first == 48) ++with_rsn;
    }
    EXPECT_EQ(joined, ap.ies);
    EXPECT_EQ(m.hasElementA, std::any_of(m.elements.begin(), m.elements.end(),
                                         [](const auto& e) { return e.first == 48; }));
  }
  EXPECT_GT(with_rsn, 0u);
}

TEST_F(VelaClientTest, ScenarioFaultsShapeTheAnswer) {
  struct Case {
    const char* fault;
    int send_result;
    size_t responses;
    std::function<void(const std::vector<SeenResponse>&)> check;
  } cases[] = {
      {"fault refuse 1", -1, 0, nullptr},
      {"fault drop 1", 0, 0, nullptr},
      {"fault null 1", 0, 1, [](const auto& r) { EXPECT_TRUE(r[0].isNull); }},
      {"fault wrong-type 1", 0, 1,
       [](const auto& r) {
         EXPECT_EQ(r[0].type, VELAResponse::RESPONSE_TYPE_RANGING_SCAN);
         EXPECT_EQ(r[0].id, 1u);
       }},
      {"fault odd-type 1", 0, 1, [](const auto& r) { EXPECT_EQ(r[0].type, 3); }},
      {"fault odd-measurement 1", 0, 1,
       [](const auto& r) {
         std::multiset<int> types;
         for (const auto& m : r[0].measurements) types.insert(m.type);
         EXPECT_EQ(types, (std::multiset<int>{0, 1, 1, 1, 1, 2, 3}));
         EXPECT_EQ(r[0].measurements.front().type, 3);
       }},
      {"fault duplicate 1", 0, 2,
       [](const auto& r) {
         EXPECT_EQ(r[0].id, 1u);
         EXPECT_EQ(r[1].id, 1u);
         EXPECT_EQ(Bssids(r[0]), Bssids(r[1]));
       }},
      {"fault status 1 3", 0, 1,
       [](const auto& r) {
         EXPECT_EQ(r[0].status, 3);
         EXPECT_EQ(r[0].measurements.size(), 4u);
       }},
      {"fault null 2-9", 0, 1, [](const auto& r) { EXPECT_FALSE(r[0].isNull); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.fault);
    RecordingListener listener;
    vela_test::SetScenarioText((std::string(kStreet) + c.fault + "\n").c_str());
    std::unique_ptr<VELAClient> client(
        VELAClient::createInstance(&listener, false, VELAClient::LOG_LEVEL_ERROR));
    ASSERT_NE(client, nullptr);
    std::unique_ptr<VELARequest> request(Fresh(1, Request::BAND_ALL));
    EXPECT_EQ(client->sendRequest(request.get()), c.send_result);
    vela_test::WaitIdle();
    const std::vector<SeenResponse> seen = listener.Seen();
    ASSERT_EQ(seen.size(), c.responses);
    if (c.check) c.check(seen);
  }
}

TEST_F(VelaClientTest, ClientCannotBeCreatedWhenTheScenarioSaysSoOrIsBad) {
  LogCapture log;
  vela_test::SetScenarioText("fault create\n");
  EXPECT_EQ(VELAClient::createInstance(&listener_, true, VELAClient::LOG_LEVEL_INFO), nullptr);
  EXPECT_TRUE(log.Has('E',
                      "the location service refused the connection (scenario set by "
                      "the test)\n"));

  EXPECT_EQ(VELAClient::createInstance(nullptr, true, VELAClient::LOG_LEVEL_INFO), nullptr);
  EXPECT_TRUE(log.Has('E', "createInstance needs a listener\n"));

  vela_test::SetScenarioText(nullptr);
  char path[] = "/tmp/vela_scenario_XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  const char bad[] = "latency 5\nnope\n";
  ASSERT_EQ(write(fd, bad, sizeof(bad) - 1), static_cast<ssize_t>(sizeof(bad) - 1));
  close(fd);
  setenv("VELA_SCENARIO", path, 1);
  EXPECT_EQ(VELAClient::createInstance(&listener_, true, VELAClient::LOG_LEVEL_INFO), nullptr);
  EXPECT_TRUE(log.Has(
      'E', "bad scenario: " + std::string(path) + ": line 2: unknown directive 'nope'\n"));
  unlink(path);
  EXPECT_EQ(VELAClient::createInstance(&listener_, true, VELAClient::LOG_LEVEL_INFO), nullptr);
  EXPECT_TRUE(log.Has('E', "bad scenario: " + std::string(path) +
                               ": cannot open: 2 (No such file or directory)\n"));
  unsetenv("VELA_SCENARIO");
  EXPECT_EQ(vela_test::LiveClientCount(), 0);
}

TEST_F(VelaClientTest, TestControlSeesACopyOfEveryValueSent) {
  Start(kStreet);
  ky_loc_fw::vector<VELAChannelInfo> channels;
  channels.push_back(VELAChannelInfo(11));
  channels.push_back(VELAChannelInfo(5180));
  Request* request = Request::createCacheFallbackRequest(21, channels, Request::SCAN_TYPE_PASSIVE,
                                                         300, 4, 9000, true, false);
  request->ssidFilter.push_back(vela_test::MakeSsid("beta"));
  request->bssidFilter.push_back(Mac(kGamma));
  EXPECT_EQ(Send(request), 0);  // deleted before anything looks at the copy

  const vela_test::SentRequest sent = vela_test::WaitForRequest(0);
  EXPECT_EQ(sent.requestId, 21u);
  EXPECT_EQ(sent.requestType, VELARequest::REQUEST_TYPE_DISCOVERY_SCAN);
  EXPECT_EQ(sent.kind, Request::KIND_CACHE_FALLBACK);
  EXPECT_TRUE(sent.hasChannels);
  EXPECT_EQ(sent.channels, (std::vector<unsigned int>{11, 5180}));
  EXPECT_EQ(sent.scanType, Request::SCAN_TYPE_PASSIVE);
  EXPECT_EQ(sent.ageFilter, 300u);
  EXPECT_EQ(sent.fallbackParam, 4u);
  EXPECT_EQ(sent.timeout, 9000);
  EXPECT_TRUE(sent.cacheFlag);
  EXPECT_FALSE(sent.scanFlag);
  ASSERT_EQ(sent.ssidFilter.size(), 1u);
  EXPECT_EQ(vela_test::SsidBytes(sent.ssidFilter[0]), "beta");
  ASSERT_EQ(sent.bssidFilter.size(), 1u);
  EXPECT_EQ(sent.bssidFilter[0], Mac(kGamma));

  ky_loc_fw::vector<VELAPeriodicNodeInfo> nodes;
  VELAPeriodicNodeInfo node;
  node.mac = Mac(kAlpha);
  node.periodicValue1 = 1000;
  nodes.push_back(node);
  EXPECT_EQ(Send(new VELAPeriodicRangingScanRequest(22, nodes, -4)), 0);
  const vela_test::SentRequest ranging = vela_test::WaitForRequest(1);
  EXPECT_EQ(ranging.requestType, VELARequest::REQUEST_TYPE_PERIODIC_RANGING_SCAN);
  ASSERT_EQ(ranging.periodicNodes.size(), 1u);
  EXPECT_EQ(ranging.periodicNodes[0].periodicValue1, 1000u);
  EXPECT_EQ(ranging.periodicNodes[0].mac, Mac(kAlpha));
  EXPECT_EQ(ranging.timestamp, -4);
  EXPECT_TRUE(ranging.nodes.empty());
}

// Like the daemon, whose listener waits for the lock that its sendRequest
// caller holds: the early response must be on its way without sendRequest
// waiting for the listener to finish.
TEST_F(VelaClientTest, HookDeliversBeforeSendRequestReturns) {
  struct Gate : VELAClientListener {
    std::mutex mutex;
    std::condition_variable changed;
    bool entered = false;
    bool open = false;
    RecordingListener inner;
    void responseReceived(VELAResponse* r) override {
      std::unique_lock<std::mutex> lock(mutex);
      entered = true;
      changed.notify_all();
      changed.wait(lock, [&] { return open; });
      lock.unlock();
      inner.responseReceived(r);
    }
  } gate;
  vela_test::SetScenarioText(kStreet);
  client_.reset(VELAClient::createInstance(&gate, true, VELAClient::LOG_LEVEL_INFO));
  ASSERT_NE(client_, nullptr);

  vela_test::SetSendHook([](const vela_test::SentRequest& r, vela_test::SendAction* action) {
    action->automaticAnswer = false;
    action->beforeReturn.push_back(vela_test::MakeDiscoveryResponse(r.requestId, 2, 5));
  });
  std::unique_ptr<VELARequest> request(Fresh(31, Request::BAND_ALL));
  {
    std::lock_guard<std::mutex> hold_the_gate(gate.mutex);
    EXPECT_EQ(client_->sendRequest(request.get()), 0);
  }
  {
    std::unique_lock<std::mutex> lock(gate.mutex);
    gate.changed.wait(lock, [&] { return gate.entered; });
    gate.open = true;
    gate.changed.notify_all();
  }
  const std::vector<SeenResponse> seen = gate.inner.WaitFor(1);
  EXPECT_EQ(seen[0].id, 31u);
  EXPECT_EQ(seen[0].measurements.size(), 2u);
  EXPECT_NE(seen[0].thread, std::this_thread::get_id());
  vela_test::WaitIdle();
  EXPECT_EQ(gate.inner.Seen().size(), 1u);  // no automatic answer

  // A hook can also refuse.
  vela_test::SetSendHook(
      [](const vela_test::SentRequest&, vela_test::SendAction* action) { action->result = 5; });
  request.reset(Fresh(32, Request::BAND_ALL));
  EXPECT_EQ(client_->sendRequest(request.get()), 5);
  vela_test::WaitIdle();
  EXPECT_EQ(gate.inner.Seen().size(), 1u);
  client_.reset();  // before the listener goes
}

TEST_F(VelaClientTest, HeldAnswersWaitForTheTest) {
  Start(kStreet);
  vela_test::HoldAnswers(true);
  EXPECT_EQ(Send(Fresh(41, Request::BAND_2_4_GHZ)), 0);
  EXPECT_EQ(Send(Fresh(42, Request::BAND_5_GHZ)), 0);
  EXPECT_EQ(vela_test::HeldAnswerCount(), 2u);
  vela_test::WaitIdle();
  EXPECT_TRUE(listener_.Seen().empty());
  EXPECT_EQ(vela_test::ReleaseHeldAnswers(), 2u);
  const std::vector<SeenResponse> seen = listener_.WaitFor(2);
  EXPECT_EQ(seen[0].id, 41u);
  EXPECT_EQ(seen[1].id, 42u);

  EXPECT_EQ(Send(Fresh(43, Request::BAND_ALL)), 0);
  EXPECT_EQ(vela_test::DropHeldAnswers(), 1u);
  vela_test::HoldAnswers(false);
  vela_test::WaitIdle();
  EXPECT_EQ(listener_.Seen().size(), 2u);
}

TEST_F(VelaClientTest, TestDeliversChosenResponsesInOrder) {
  Start(kStreet);
  EXPECT_EQ(vela_test::Deliver(nullptr), 0);
  EXPECT_EQ(vela_test::Deliver(vela_test::MakeRangingResponse(8, 3, 1)), 0);
  EXPECT_EQ(vela_test::DeliverAndWait(vela_test::MakeRangingResponse(8, 1, 9)), 0);
  const std::vector<SeenResponse> seen = listener_.Seen();
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_TRUE(seen[0].isNull);
  EXPECT_EQ(seen[1].id, 8u);
  EXPECT_EQ(seen[1].measurements.size(), 3u);
  EXPECT_EQ(seen[1].measurements[0].macList.size(), 2u);
  EXPECT_EQ(seen[2].id, 8u);
  EXPECT_EQ(vela_test::DeliverAndWait(vela_test::MakeResponseOfType(9, 7)), 0);
  EXPECT_EQ(listener_.Seen().back().type, 7);

  client_.reset();
  EXPECT_EQ(vela_test::Deliver(vela_test::MakeDiscoveryResponse(1, 1, 1)), -1);
  vela_test::WaitIdle();  // returns at once without a client
}

TEST_F(VelaClientTest, DestroyingTheClientDropsPendingAnswers) {
  Start(std::string(kStreet) + "latency 600000\n");
  EXPECT_EQ(vela_test::LiveClientCount(), 1);
  EXPECT_EQ(Send(Fresh(51, Request::BAND_ALL)), 0);
  EXPECT_EQ(Send(Fresh(52, Request::BAND_ALL)), 0);
  client_.reset();
  EXPECT_EQ(vela_test::LiveClientCount(), 0);
  EXPECT_TRUE(listener_.Seen().empty());
}

TEST_F(VelaClientTest, ConcurrentSendersEachGetTheirAnswer) {
  Start(kStreet);
  constexpr unsigned kThreads = 4;
  constexpr unsigned kPerThread = 25;
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (unsigned i = 0; i < kPerThread; ++i) {
        std::unique_ptr<VELARequest> r(Fresh(1 + t * kPerThread + i, Request::BAND_2_4_GHZ));
        EXPECT_EQ(client_->sendRequest(r.get()), 0);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  const std::vector<SeenResponse> seen = listener_.WaitFor(kThreads * kPerThread);
  std::set<unsigned int> ids;
  for (const SeenResponse& r : seen) {
    ids.insert(r.id);
    EXPECT_EQ(Bssids(r), (std::set<uint64_t>{kAlpha, kBeta}));
  }
  EXPECT_EQ(ids.size(), kThreads * kPerThread);
  EXPECT_EQ(vela_test::SentRequests().size(), kThreads * kPerThread);
}

TEST_F(VelaClientTest, RefusesNullAndUnknownRequests) {
  Start(kStreet);
  LogCapture log;
  EXPECT_NE(client_->sendRequest(nullptr), 0);
  EXPECT_TRUE(log.Has('E', "null request refused\n"));
  struct Odd : VELARequest {
    Odd() : VELARequest(3) {}
    int getRequestType() const override { return 9; }
  } odd;
  EXPECT_NE(client_->sendRequest(&odd), 0);
  EXPECT_TRUE(log.Has('E', "request 3 of unknown type 9 refused\n"));
  EXPECT_TRUE(vela_test::SentRequests().empty());
}

}  // namespace
}  // namespace ky_loc_fw
