#include "benchmarks/scan/neighbourhood_text.h"

#include <cstdio>
#include <sstream>
#include <vector>

#include "ky_loc_fw/vela_test_control.h"

namespace bench {

std::string NeighbourhoodText(size_t count) {
  std::vector<std::string> aps;
  std::istringstream in(ky_loc_fw::vela_test::DefaultScenarioText());
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, 3, "ap ") == 0) aps.push_back(line);
  }
  std::ostringstream out;
  out << "latency 0\n";
  if (aps.empty()) return out.str();
  for (size_t i = 0; i < count; ++i) {
    std::string line = aps[i % aps.size()];
    if (i >= aps.size()) {
      // A locally administered address of its own for every copy.
      const size_t at = line.find("bssid=") + 6;
      char mac[18];
      std::snprintf(mac, sizeof mac, "02:%02zx:%02zx:%02zx:%02zx:%02zx", (i >> 32) & 0xff,
                    (i >> 24) & 0xff, (i >> 16) & 0xff, (i >> 8) & 0xff, i & 0xff);
      line.replace(at, 17, mac);
    }
    out << line << '\n';
  }
  return out.str();
}

}  // namespace bench
