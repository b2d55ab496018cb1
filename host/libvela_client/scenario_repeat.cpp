#include "scenario_repeat.h"

#include <algorithm>
#include <string>

#include "information_elements.h"
#include "scenario_ap.h"

namespace ky_loc_fw {
namespace vela_sim {

namespace {

constexpr uint8_t kIdDsParameterSet = 3;
constexpr uint8_t kIdHtOperation = 61;
constexpr unsigned int kChannels24 = 13;
// Copies are locally administered addresses under their own first octet;
// the low 40 bits are the copy's position in the list, so no two collide.
constexpr Mac48 kCopyPrefix = Mac48{0x0a} << 40;
constexpr int kRssiSteps = 30;

// The original's SSID with "-k" appended, cut so that it fits 32 bytes.
std::vector<uint8_t> CopySsid(const std::vector<uint8_t>& ssid, size_t k) {
  const std::string suffix = "-" + std::to_string(k);
  std::vector<uint8_t> out(
      ssid.begin(), ssid.begin() + static_cast<std::ptrdiff_t>(
                                       std::min(ssid.size(), kMaxSsidBytes - suffix.size())));
  out.insert(out.end(), suffix.begin(), suffix.end());
  return out;
}

// Moves a 2.4 GHz access point to another channel, in the elements too.
void MoveChannel(ScenarioAp* ap, size_t k) {
  const unsigned int channel = static_cast<unsigned int>((ap->channel - 1 + k) % kChannels24) + 1;
  ap->channel = channel;
  ap->frequencyMhz = ChannelFrequency(channel, &ap->band);
  std::vector<ElementRef> elements;
  if (!SplitElements(ap->ies, &elements)) return;
  for (const ElementRef& e : elements) {
    if ((e.id == kIdDsParameterSet || e.id == kIdHtOperation) && e.len >= 1) {
      ap->ies[e.offset] = static_cast<uint8_t>(channel);
    }
  }
}

}  // namespace

ScenarioAp DeriveCopy(const ScenarioAp& original, size_t index, size_t k) {
  ScenarioAp ap = original;
  ap.bssid = kCopyPrefix | (static_cast<Mac48>(index) & 0xFFFFFFFFFFull);
  if (!ap.hidden) {
    ap.ssid = CopySsid(original.ssid, k);
    ReplaceSsidElement(&ap.ies, ap.ssid);
  }
  // 5 GHz channels come in wide blocks that the elements describe; those
  // copies stay on the original's channel.
  if (ap.band == 0 && ap.channel <= kChannels24) MoveChannel(&ap, k);
  ap.rssiDbm = std::max(-127, original.rssiDbm - static_cast<int>(k % kRssiSteps));
  return ap;
}

}  // namespace vela_sim
}  // namespace ky_loc_fw
