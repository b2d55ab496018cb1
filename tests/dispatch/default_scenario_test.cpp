// A discovery scan through the dispatcher to the simulated service's
// built-in neighbourhood: the answer comes back once, on the service's
// thread, to the function registered for it, and the records marshalled from
// it decode back to the neighbourhood's SSIDs, BSSIDs and elements.
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "dispatch/vela_dispatcher.h"
#include "ky_loc_fw/vela_response.h"
#include "ky_loc_fw/vela_test_control.h"
#include "scan/marshal.h"
#include "tests/dispatch/dispatch_fakes.h"

namespace {

namespace vela_test = ky_loc_fw::vela_test;
using dispatch_test::FakeRemote;
using dispatch_test::Line;
using dispatch_test::LogCapture;
using Bytes = std::vector<uint8_t>;

constexpr uint8_t kOwnOui[3] = {TESK_VENDOR_OUI_BYTES};

struct Element {
  uint8_t id;
  Bytes data;
};

struct Ap {
  std::string ssid;
  std::vector<Element> elements;
};

Bytes FromHex(const std::string& hex) {
  Bytes out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return out;
}

std::vector<Element> SplitElements(const uint8_t* p, std::size_t size) {
  std::vector<Element> out;
  std::size_t at = 0;
  while (at + 2 <= size) {
    const std::size_t len = p[at + 1];
    if (at + 2 + len > size) break;
    out.push_back(Element{p[at], Bytes(p + at + 2, p + at + 2 + len)});
    at += 2 + len;
  }
  EXPECT_EQ(at, size) << "elements must fill their range exactly";
  return out;
}

// The access points of the scenario text by "hi24:lo24" of their BSSID: the
// SSID and the elements, vendor= additions (own OUI, then the payload)
// appended last.
std::map<std::string, Ap> ParseAps(const std::string& text) {
  std::map<std::string, Ap> aps;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream tokens(line);
    std::string word;
    tokens >> word;
    if (word != "ap") continue;
    std::string key;
    Ap ap;
    Bytes ies;
    while (tokens >> word) {
      const std::size_t eq = word.find('=');
      const std::string name = word.substr(0, eq);
      const std::string value = eq == std::string::npos ? "" : word.substr(eq + 1);
      if (name == "bssid") {
        unsigned int o[6];
        EXPECT_EQ(
            sscanf(value.c_str(), "%x:%x:%x:%x:%x:%x", &o[0], &o[1], &o[2], &o[3], &o[4], &o[5]),
            6);
        key = std::to_string((o[0] << 16) | (o[1] << 8) | o[2]) + ":" +
              std::to_string((o[3] << 16) | (o[4] << 8) | o[5]);
      } else if (name == "ssid") {
        const Bytes ssid = FromHex(value.substr(4));  // "hex:"
        ap.ssid.assign(ssid.begin(), ssid.end());
      } else if (name == "ies") {
        const Bytes elements = FromHex(value);
        Bytes all = elements;
        all.insert(all.end(), ies.begin(), ies.end());
        ies = all;
      } else if (name == "vendor") {
        const Bytes payload = FromHex(value);
        ies.push_back(221);
        ies.push_back(static_cast<uint8_t>(3 + payload.size()));
        ies.insert(ies.end(), kOwnOui, kOwnOui + 3);
        ies.insert(ies.end(), payload.begin(), payload.end());
      }
    }
    ap.elements = SplitElements(ies.data(), ies.size());
    aps[key] = ap;
  }
  return aps;
}

class DefaultScenarioTest : public ::testing::Test {
 protected:
  void SetUp() override {
    VelaDispatcher::Get();
    vela_test::WaitIdle();
    vela_test::Reset();
  }
  void TearDown() override {
    vela_test::WaitIdle();
    vela_test::Reset();
  }

  int32_t SendScan(unsigned int id, FakeRemote& remote, Object* handle) {
    ky_loc_fw::vector<ky_loc_fw::VELAChannelInfo> unused;
    std::unique_ptr<ky_loc_fw::VELADiscoveryScanRequest> request(
        ky_loc_fw::VELADiscoveryScanRequest::createFreshScanRequest(
            id, ky_loc_fw::VELADiscoveryScanRequest::BAND_ALL,
            ky_loc_fw::VELADiscoveryScanRequest::SCAN_TYPE_ACTIVE, 0, 0,
            ky_loc_fw::VELADiscoveryScanRequest::REQUEST_MODE_NORMAL, false));
    if (request == nullptr) return -2;
    return VelaDispatcher::Get().SendRequest(
        request.get(),
        [this, id](ky_loc_fw::VELAResponse* response, Object callback) {
          OnResponse(id, response, callback);
        },
        remote.object(), handle);
  }

  // On the service's delivery thread.
  void OnResponse(unsigned int registered_id, ky_loc_fw::VELAResponse* response, Object remote) {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(
        {registered_id, response->getRequestId(), remote.context, std::this_thread::get_id()});
    if (response->getResponseType() != ky_loc_fw::VELAResponse::RESPONSE_TYPE_DISCOVERY_SCAN) {
      return;
    }
    auto* discovery = static_cast<ky_loc_fw::VELADiscoveryScanResponse*>(response);
    for (uint32_t i = 0; i < discovery->measurements.getCount(); ++i) {
      auto* m =
          static_cast<const ky_loc_fw::VELAFullBeaconScanMeasurement*>(discovery->measurements[i]);
      if (m != nullptr && m->getMeasurementType() == 1) MarshalFullBeacon(records_, m);
    }
  }

  struct Call {
    unsigned int registered_id;
    unsigned int response_id;
    void* remote;
    std::thread::id thread;
  };
  LogCapture log_;
  std::mutex mutex_;
  std::vector<Call> calls_;
  CommonResponseData records_;
};

TEST_F(DefaultScenarioTest, ScanComesBackOnceAndDecodesToTheNeighbourhood) {
  FakeRemote remote;
  const unsigned int id = dispatch_test::NextId();
  Object handle;
  ASSERT_EQ(SendScan(id, remote, &handle), 0);
  vela_test::WaitIdle();

  ASSERT_EQ(calls_.size(), 1u);
  EXPECT_EQ(calls_[0].registered_id, id);
  EXPECT_EQ(calls_[0].response_id, id);
  EXPECT_EQ(calls_[0].remote, &remote);
  EXPECT_NE(calls_[0].thread, std::this_thread::get_id());
  handle.invoke(handle.context, OBJECT_OP_RELEASE, nullptr, 0);
  EXPECT_EQ(remote.retains, 1);
  EXPECT_EQ(remote.releases, 1);
  EXPECT_EQ(log_.Count(Line("D Dispatcher: Expected release for ID %d\n", id)), 1);

  const std::map<std::string, Ap> aps = ParseAps(vela_test::DefaultScenarioText());
  ASSERT_FALSE(aps.empty());
  ASSERT_EQ(records_.measurements.getCount(), aps.size());
  const auto* pool = reinterpret_cast<const uint8_t*>(records_.bytes.getData());
  int extended = 0;
  for (uint32_t i = 0; i < records_.measurements.getCount(); ++i) {
    const WifiScanMeasurement& rec = records_.measurements[i];
    const std::string key = std::to_string(rec.bssidHi24) + ":" + std::to_string(rec.bssidLo24);
    SCOPED_TRACE(key);
    auto it = aps.find(key);
    ASSERT_NE(it, aps.end());
    const Ap& ap = it->second;

    EXPECT_EQ(rec.ssidPresent, 1);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(rec.ssid), rec.ssidLength), ap.ssid);

    ASSERT_LE(rec.beaconIesOffset + rec.beaconIesLength, records_.bytes.getCount());
    const std::vector<Element> got = SplitElements(pool + rec.beaconIesOffset, rec.beaconIesLength);
    ASSERT_EQ(got.size(), ap.elements.size());
    for (std::size_t k = 0; k < got.size(); ++k) {
      const Element& want = ap.elements[k];
      const bool own_long_vendor = want.id == 221 && want.data.size() >= 25 &&
                                   want.data.size() != 255 &&
                                   std::memcmp(want.data.data(), kOwnOui, 3) == 0;
      EXPECT_EQ(got[k].id, want.id);
      if (own_long_vendor) {
        ++extended;
        ASSERT_EQ(got[k].data.size(), want.data.size() + 1);
        EXPECT_EQ(Bytes(got[k].data.begin(), got[k].data.end() - 1), want.data);
      } else {
        EXPECT_EQ(got[k].data, want.data);
      }
    }
  }
  EXPECT_EQ(extended, 3) << "the neighbourhood has three long own-OUI vendor elements";
}

TEST_F(DefaultScenarioTest, ReleasedScanNeverComesBack) {
  vela_test::HoldAnswers(true);
  FakeRemote remote;
  const unsigned int id = dispatch_test::NextId();
  Object handle;
  ASSERT_EQ(SendScan(id, remote, &handle), 0);
  handle.invoke(handle.context, OBJECT_OP_RELEASE, nullptr, 0);
  EXPECT_EQ(remote.releases, 1);

  EXPECT_EQ(vela_test::ReleaseHeldAnswers(), 1u);
  vela_test::WaitIdle();
  EXPECT_TRUE(calls_.empty());
  EXPECT_EQ(log_.Count(Line("D Dispatcher: Aborted ID %d\n", id)), 1);
  EXPECT_EQ(log_.Count(Line("W Dispatcher: Unexpected request ID %d\n", id)), 1);
  EXPECT_EQ(remote.retains, 1);
  EXPECT_EQ(remote.releases, 1);
}

}  // namespace
