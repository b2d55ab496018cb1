// Host only, for tests: lets them watch and steer the simulated location
// service that stands behind VELAClient on the host. Linking the testing
// library installs the control; the library that the daemon loads records
// and holds nothing by itself.
//
// The control is process-wide. Requests are recorded from every client, once
// a test asked for it; deliveries go to the most recently created client
// still alive (the one a daemon under test created). Functions that wait
// block without a time limit and must not be called on the delivery thread
// (from inside responseReceived), except where a comment says otherwise.
#ifndef KY_LOC_FW_VELA_TEST_CONTROL_H_
#define KY_LOC_FW_VELA_TEST_CONTROL_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/libvela_client/control_seam.h"
#include "host/libvela_client/distinct_measurements.h"
#include "host/libvela_client/scenario_parser.h"
#include "ky_loc_fw/vela_client.h"

namespace ky_loc_fw {
namespace vela_test {

// A copy of every value of one request, taken inside sendRequest.
using SentRequest = vela_sim::SentRequest;
// What sendRequest does with one request; a SendHook may change it. Don't
// put responses in its beforeReturn while another delivery may be blocked on
// a lock that sendRequest's caller holds.
using SendAction = vela_sim::SendAction;

// Called inside sendRequest, on the caller's thread, after the request has
// been recorded and before anything is answered.
using SendHook = std::function<void(const SentRequest& request, SendAction* action)>;

// Stops recording and forgets recorded requests, removes the hook, stops
// holding and drops held answers. Scenario text set by SetScenarioText stays.
void Reset();

// Records the requests sent from now until the next Reset, the first 4,096.
void RecordRequests();

void SetSendHook(SendHook hook);

// Requests recorded since RecordRequests, in the order they were sent.
std::vector<SentRequest> SentRequests();

// While held, automatic answers (and the extra responses of scenario faults)
// are kept instead of being delivered; they are kept by the time sendRequest
// returns. Delivering released answers ignores the scenario's latency.
void HoldAnswers(bool hold);
// Queues the held answers for delivery, in the order they were made; returns
// how many.
size_t ReleaseHeldAnswers();
// Hands the held answers to the caller instead, in the order they were made:
// responses as the service builds them, to measure or look into.
std::vector<std::unique_ptr<VELAResponse>> TakeHeldAnswers();

// Queues response (null: a null response) for delivery on the current
// client's delivery thread, after what is already due, and waits until the
// listener's responseReceived has returned; takes ownership. 0, or -1 when no
// client is alive (the response is then deleted).
int DeliverAndWait(VELAResponse* response);
// Waits until the current client has nothing queued or scheduled (answers
// waiting for their latency included; held answers excluded) and no delivery
// is running. Returns at once when no client is alive.
void WaitIdle();

// Scenario text for the clients created from now on, in place of
// VELA_SCENARIO and the built-in neighbourhood; null restores those.
void SetScenarioText(const char* text);
// The built-in neighbourhood, as scenario text.
using vela_sim::DefaultScenarioText;

// Builders for responses and measurements with chosen values. All return new
// objects owned by the caller (or by the response they are put into).

// A response whose type query yields type and that carries nothing else.
inline constexpr auto& MakeResponseOfType = vela_sim::NewResponseOfType;
// A plain measurement whose type query yields type.
inline constexpr auto& MakeMeasurementOfType = vela_sim::NewMeasurementOfType;
VELAMacAddress MakeMac(uint32_t hi24, uint32_t lo24);
// The SSID's bytes; empty when it is not valid.
std::string SsidBytes(const VELASsid& ssid);

// Sets an SSID's stored state as it stands, bypassing setSSID's checks: a
// valid SSID with a length above 32 makes getSSID fail.
struct SsidAccess {
  static void Set(VELASsid* ssid, const unsigned char* bytes, int length, bool valid);
};

}  // namespace vela_test
}  // namespace ky_loc_fw

#endif  // KY_LOC_FW_VELA_TEST_CONTROL_H_
