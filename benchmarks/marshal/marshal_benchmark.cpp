// Cost of marshalling a discovery response, against a baseline in the same
// run: copying the same bytes (records, details, raw bytes, elements) into
// presized buffers, the least any flattening has to do.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ky_loc_fw/log.h"
#include "ky_loc_fw/vela_response.h"
#include "ky_loc_fw/vela_test_control.h"
#include "scan/marshal.h"

namespace {

constexpr std::size_t kBeacons = 21;  // a typical neighbourhood

using ky_loc_fw::VELAFullBeaconScanMeasurement;

std::unique_ptr<ky_loc_fw::VELADiscoveryScanResponse> MakeResponse() {
  return std::unique_ptr<ky_loc_fw::VELADiscoveryScanResponse>(
      ky_loc_fw::vela_test::MakeDiscoveryResponse(1, kBeacons, 7));
}

const VELAFullBeaconScanMeasurement* Beacon(const ky_loc_fw::VELADiscoveryScanResponse& r,
                                            uint32_t i) {
  return static_cast<const VELAFullBeaconScanMeasurement*>(r.measurements.getData()[i]);
}

void BM_CopyBaseline(benchmark::State& state) {
  auto response = MakeResponse();
  std::vector<uint8_t> records(kBeacons * 160);
  std::vector<uint8_t> infos(64 * 64);
  std::vector<uint8_t> pool(64 * 1024);
  for (auto _ : state) {
    std::size_t r = 0, d = 0, p = 0;
    for (uint32_t i = 0; i < response->measurements.getCount(); ++i) {
      const VELAFullBeaconScanMeasurement* m = Beacon(*response, i);
      std::memcpy(&records[r], &m->value32_2, 160);
      r += 160;
      for (uint32_t k = 0; k < m->details.getCount(); ++k, d += 64) {
        std::memcpy(&infos[d], m->details.getData()[k], 64);
      }
      std::memcpy(&pool[p], m->rawBytes.getData(), m->rawBytes.getCount());
      p += m->rawBytes.getCount();
      for (uint32_t k = 0; k < m->informationElements.getCount(); ++k) {
        const ky_loc_fw::VELAInfoElement* e = m->informationElements.getData()[k];
        pool[p] = e->id;
        pool[p + 1] = e->len;
        if (e->len != 0) std::memcpy(&pool[p + 2], e->data, e->len);
        p += 2u + e->len;
      }
    }
    benchmark::DoNotOptimize(records.data());
    benchmark::DoNotOptimize(pool.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_CopyBaseline);

void BM_MarshalFullBeacon(benchmark::State& state) {
  auto response = MakeResponse();
  for (auto _ : state) {
    CommonResponseData out;
    for (uint32_t i = 0; i < response->measurements.getCount(); ++i) {
      MarshalFullBeacon(out, Beacon(*response, i));
    }
    benchmark::DoNotOptimize(out.bytes.getData());
  }
}
BENCHMARK(BM_MarshalFullBeacon);

// Keeps each benchmark's time per iteration for the ratio printed at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration)
        times_[run.benchmark_name()] = run.GetAdjustedRealTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }
  double Time(const std::string& name) const {
    auto it = times_.find(name);
    return it == times_.end() ? 0 : it->second;
  }

 private:
  std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
  ky_loc_fw::log_set_local_level_for_tag("vector", 0);
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const double baseline = reporter.Time("BM_CopyBaseline");
  const double marshal = reporter.Time("BM_MarshalFullBeacon");
  if (baseline > 0 && marshal > 0) {
    std::printf("MarshalFullBeacon / copy baseline: %.2fx (%zu beacons)\n", marshal / baseline,
                kBeacons);
  }
  benchmark::Shutdown();
  return 0;
}
