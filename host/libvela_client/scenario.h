// What the simulated location service answers: its access points, ranging
// answers, latency and injected faults. scenario_parser.h reads it from the
// line-oriented text described in README.md.
#ifndef VELA_CLIENT_SCENARIO_H_
#define VELA_CLIENT_SCENARIO_H_

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace ky_loc_fw {
namespace vela_sim {

// A 48-bit address as a number, first octet highest.
using Mac48 = uint64_t;

struct ScenarioAp {
  Mac48 bssid = 0;
  std::vector<uint8_t> ssid;  // from ssid=, else from the SSID element
  unsigned int channel = 0;
  unsigned int frequencyMhz = 0;
  int band = 0;  // 0 2.4 GHz, 1 5 GHz
  int rssiDbm = -65;
  unsigned int intervalTu = 100;
  int capability = -1;  // -1: derived from the elements
  int security = -1;    // -1: derived; else 0 open .. 4 WPA3
  int txPowerDbm = 20;
  bool hidden = false;
  bool cached = false;
  bool probe = false;
  std::vector<uint8_t> ies;  // whole, checked element sequence, vendor= additions included
  int line = 0;
};

struct ScenarioRange {
  Mac48 mac = 0;
  uint32_t distanceMm = 0;  // 0: derived from the address
  uint32_t spreadMm = 0;    // 0: a twentieth of the distance
  int rssiDbm = 0;          // 0: derived from the distance
  bool plain = false;       // cannot range: a plain measurement answers
};

// Request ids a fault applies to: every id, or a list of closed ranges.
struct IdSet {
  bool all = false;
  std::vector<std::pair<uint32_t, uint32_t>> ranges;
  bool Contains(uint32_t id) const;
};

enum class FaultKind {
  kRefuse,          // sendRequest returns nonzero
  kDrop,            // accepted, never answered
  kNull,            // a null response instead of the answer
  kWrongType,       // an empty response of the other kind
  kOddType,         // a response whose type is 3
  kOddMeasurement,  // extra measurements of types a listener must skip
  kDuplicate,       // the answer, then a second one for the same id
  kStatus,          // the answer carries another scan status
};

struct ScenarioFault {
  FaultKind kind = FaultKind::kDrop;
  IdSet ids;
  int32_t status = 0;  // kStatus only
};

struct Scenario {
  uint32_t latencyMs = 20;
  bool refuseCreate = false;  // "fault create"
  std::vector<ScenarioAp> aps;
  std::vector<ScenarioRange> ranges;
  std::vector<ScenarioFault> faults;

  bool HasFault(FaultKind kind, uint32_t id) const;
  // The status of the first kStatus fault for id; false when none.
  bool StatusFault(uint32_t id, int32_t* status) const;
};

// Limits that keep a hostile file from exhausting memory.
constexpr size_t kMaxScenarioBytes = 32u << 20;
constexpr size_t kMaxAccessPoints = 100000;
constexpr size_t kMaxRanges = 512;
constexpr size_t kMaxFaults = 512;
constexpr size_t kMaxSsidBytes = 32;
constexpr size_t kMaxIeBytes = 2048;            // one access point
constexpr size_t kMaxTotalIeBytes = 64u << 20;  // all of them

}  // namespace vela_sim
}  // namespace ky_loc_fw

#endif  // VELA_CLIENT_SCENARIO_H_
