// Feeds arbitrary bytes to the client library as if a daemon had delivered
// them: the discovery and ranging decoders, every record's pool slices and
// the information-element walk over each slice.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "teskclient/information_elements.h"
#include "teskclient/result_decoding.h"

namespace {

// Splits the input into up to five buffers: two size bytes per buffer, then
// the buffer contents in order, cut at the end of the input.
std::vector<std::vector<uint8_t>> Split(const uint8_t* data, size_t size) {
  std::vector<std::vector<uint8_t>> buffers(5);
  const size_t sizes = std::min<size_t>(5, size / 2);
  for (size_t i = 0, at = 2 * sizes; i < sizes; ++i) {
    const size_t n = std::min<size_t>(data[2 * i] | data[2 * i + 1] << 8, size - at);
    buffers[i].assign(data + at, data + at + n);
    at += n;
  }
  return buffers;
}

void Walk(const teskclient::ScanRecords& results) {
  for (const WifiScanMeasurement& record : results.records) {
    const teskclient::RecordParts parts = teskclient::PartsOf(results, record);
    for (const teskclient::PoolSlice* slice :
         {&parts.bytes, &parts.element_a, &parts.element_b, &parts.ies}) {
      teskclient::SummariseIes(slice->data, slice->size);
    }
    uint64_t sum = 0;
    for (size_t i = 0; i < parts.info_count; ++i) sum += parts.infos[i].infoValue32_1;
    for (size_t i = 0; i < parts.mac_count; ++i) sum += parts.macs[i].lo24;
    teskclient::SsidOf(record);
    (void)sum;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  teskclient::SummariseIes(data, size);
  std::vector<std::vector<uint8_t>> buffers = Split(data, size);
  ObjectArg args[5];
  for (int i = 0; i < 5; ++i) {
    args[i].b = ObjectBuf{buffers[i].empty() ? nullptr : buffers[i].data(), buffers[i].size()};
  }
  teskclient::DiscoveryResults discovery;
  if (teskclient::DecodeDiscoveryDelivery(args, 4, &discovery)) Walk(discovery);
  teskclient::RangingResults ranging;
  if (teskclient::DecodeRangingDelivery(args, 5, &ranging)) Walk(ranging);
  return 0;
}
