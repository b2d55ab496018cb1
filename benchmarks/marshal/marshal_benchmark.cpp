// Cost of marshalling a discovery response of 21, 1,000 and 10,000 full
// beacons, as the simulated service builds them from the real frames the
// project carries, against a baseline in the same run: appending the same
// bytes (records, details, raw bytes, elements A and B, the beacon's
// elements) to buffers sized beforehand, the least any flattening has to do.
// Marshalling and copying alternate, and their medians are compared; the
// Google Benchmark runs follow unless --quick is given.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "benchmarks/support/bench_support.h"
#include "benchmarks/support/held_scans.h"
#include "benchmarks/support/neighbourhood_text.h"
#include "ky_loc_fw/log.h"
#include "ky_loc_fw/vela_response.h"
#include "scan/marshal.h"
#include "scan/pool_sizing.h"
#include "scan/result_delivery.h"
#include "scan/scan_heap.h"

namespace {

using ky_loc_fw::VELAFullBeaconScanMeasurement;
using Response = ky_loc_fw::VELADiscoveryScanResponse;

// A fresh scan of a neighbourhood of `beacons` access points, answered by
// the simulated service and taken before delivery; null if none came.
std::unique_ptr<Response> MakeResponse(size_t beacons) {
  bench::HeldScans service(bench::NeighbourhoodText(beacons));
  std::vector<std::unique_ptr<ky_loc_fw::VELAResponse>> answers;
  if (service.Send() >= 0) answers = service.Take();
  if (answers.size() != 1 || answers[0] == nullptr ||
      answers[0]->getResponseType() != ky_loc_fw::VELAResponse::RESPONSE_TYPE_DISCOVERY_SCAN) {
    return nullptr;
  }
  std::unique_ptr<Response> response(static_cast<Response*>(answers[0].release()));
  // What follows reads every measurement as a full beacon.
  const auto& all = response->measurements;
  if (all.getCount() != beacons) return nullptr;
  for (uint32_t i = 0; i < all.getCount(); ++i) {
    if (all[i] == nullptr || all[i]->getMeasurementType() !=
                                 ky_loc_fw::VELAScanMeasurement::MEASUREMENT_TYPE_FULL_BEACON) {
      return nullptr;
    }
  }
  return response;
}

const VELAFullBeaconScanMeasurement* Beacon(const Response& r, uint32_t i) {
  return static_cast<const VELAFullBeaconScanMeasurement*>(r.measurements.getData()[i]);
}

// The baseline: the response's bytes appended to buffers that are big
// enough: records, details, raw bytes, elements A and B, the beacon's
// elements.
class Copier {
 public:
  explicit Copier(const Response& response) : response_(response) {
    size_t details = 0, pool = 0;
    for (uint32_t i = 0; i < response.measurements.getCount(); ++i) {
      const VELAFullBeaconScanMeasurement* m = Beacon(response, i);
      details += m->details.getCount();
      pool += m->rawBytes.getCount();
      for (const ky_loc_fw::VELAInfoElement* e : {m->elementA, m->elementB}) {
        if (e != nullptr) pool += 2u + e->len;
      }
      for (uint32_t k = 0; k < m->informationElements.getCount(); ++k) {
        pool += 2u + m->informationElements.getData()[k]->len;
      }
    }
    records_.resize(response.measurements.getCount() * 160);
    infos_.resize(details * 64);
    pool_.resize(pool);
  }

  void Copy() {
    std::size_t r = 0, d = 0, p = 0;
    for (uint32_t i = 0; i < response_.measurements.getCount(); ++i) {
      const VELAFullBeaconScanMeasurement* m = Beacon(response_, i);
      std::memcpy(&records_[r], &m->value32_2, 160);
      r += 160;
      for (uint32_t k = 0; k < m->details.getCount(); ++k, d += 64) {
        std::memcpy(&infos_[d], m->details.getData()[k], 64);
      }
      std::memcpy(&pool_[p], m->rawBytes.getData(), m->rawBytes.getCount());
      p += m->rawBytes.getCount();
      const auto put = [this, &p](const ky_loc_fw::VELAInfoElement* e) {
        pool_[p] = e->id;
        pool_[p + 1] = e->len;
        if (e->len != 0) std::memcpy(&pool_[p + 2], e->data, e->len);
        p += 2u + e->len;
      };
      if (m->elementA != nullptr) put(m->elementA);
      if (m->elementB != nullptr) put(m->elementB);
      for (uint32_t k = 0; k < m->informationElements.getCount(); ++k) {
        put(m->informationElements.getData()[k]);
      }
    }
    benchmark::DoNotOptimize(records_.data());
    benchmark::DoNotOptimize(infos_.data());
    benchmark::DoNotOptimize(pool_.data());
    benchmark::ClobberMemory();
  }

 private:
  const Response& response_;
  std::vector<uint8_t> records_, infos_, pool_;
};

// What the daemon does with each response: size the arrays (the pools as
// the last response of this size needed), walk the
// measurements as it does (asking each its type), marshal every beacon, hand
// the arrays over, free them.
void Marshal(const Response& response) {
  static PoolSizing pools;
  CommonResponseData out;
  const uint32_t count = response.measurements.getCount();
  out.measurements.reserve(count);
  pools.Reserve(out, count);
  ForEachMeasurement(
      response.measurements, [&out](const ky_loc_fw::VELAScanMeasurement* m, int type) {
        if (type == ky_loc_fw::VELAScanMeasurement::MEASUREMENT_TYPE_FULL_BEACON) {
          MarshalFullBeacon(out, static_cast<const VELAFullBeaconScanMeasurement*>(m));
        }
      });
  pools.Learn(out, count);
  benchmark::DoNotOptimize(out.bytes.getData());
}

void BM_CopyBaseline(benchmark::State& state) {
  auto response = MakeResponse(static_cast<size_t>(state.range(0)));
  if (response == nullptr) return state.SkipWithError("the service built no response");
  Copier copier(*response);
  for (auto _ : state) copier.Copy();
}
BENCHMARK(BM_CopyBaseline)->Arg(21)->Arg(1000)->Arg(10000);

void BM_MarshalFullBeacon(benchmark::State& state) {
  auto response = MakeResponse(static_cast<size_t>(state.range(0)));
  if (response == nullptr) return state.SkipWithError("the service built no response");
  for (auto _ : state) Marshal(*response);
}
BENCHMARK(BM_MarshalFullBeacon)->Arg(21)->Arg(1000)->Arg(10000);

bool Compare(size_t beacons, int rounds) {
  std::string figure = "marshal " + std::to_string(beacons) + " beacons";
  if (beacons >= 1000) figure = "marshal " + std::to_string(beacons / 1000) + ",000 beacons";
  auto response = MakeResponse(beacons);
  if (response == nullptr) {
    bench::PrintNotMeasured(figure, "the simulated service built no response of that size");
    return false;
  }
  Copier copier(*response);
  std::vector<double> copy_ns, marshal_ns;
  for (int r = 0; r < rounds; ++r) {
    const double start = bench::NowNs();
    copier.Copy();
    const double middle = bench::NowNs();
    Marshal(*response);
    copy_ns.push_back(middle - start);
    marshal_ns.push_back(bench::NowNs() - middle);
  }
  const double marshal = bench::Median(marshal_ns), copy = bench::Median(copy_ns);
  if (beacons >= 1000) {
    bench::PrintRow(bench::RatioRow(figure, bench::FormatNs(marshal), bench::FormatNs(copy),
                                    marshal / copy, 1.3));
  } else {
    bench::Row row;
    row.figure = figure;
    row.value = bench::FormatNs(marshal);
    row.baseline = bench::FormatNs(copy);
    row.ratio = bench::FormatCount(marshal / copy, "") + "x";
    bench::PrintRow(row);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  KeepScanMemoryForTheNextScan();  // the daemon's heap, as the daemon sets it
  ky_loc_fw::log_set_local_level_for_tag("vector", 0);
  const bench::Options options =
      bench::ParseOptions(argc, argv, /*selector=*/nullptr, /*benchmark_flags=*/true);
  bool ok = Compare(21, options.quick ? 3 : 20001);
  ok = Compare(1000, options.quick ? 3 : 1001) && ok;
  ok = Compare(10000, options.quick ? 3 : 201) && ok;
  if (!ok) return 1;
  if (options.quick) return 0;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
