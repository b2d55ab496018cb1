// How big the pools of the next response will be: as big, per measurement,
// as those of the last response of the same kind. A pool of megabytes grown
// from nothing doubles a dozen times, copying what it holds each time and
// freeing blocks large enough to make the heap tidy itself; sizing the pools
// exactly would read every element of the response twice, which costs more.
// Scans repeat over much the same neighbourhood, so the last one is a good
// guess; a wrong one costs only the doublings after all, or room unused.
#ifndef TESK_SCAN_POOL_SIZING_H_
#define TESK_SCAN_POOL_SIZING_H_

#include <stdint.h>

#include <atomic>

#include "scan/response_data.h"

class PoolSizing {
 public:
  // Makes room in the pools of `data` for a response of `measurements`.
  void Reserve(CommonResponseData& data, uint32_t measurements) const;
  // Learns from the pools of a response of `measurements`, once marshalled.
  void Learn(const CommonResponseData& data, uint32_t measurements);

 private:
  // Per measurement, in 1/16ths. Atomic only to be safe should responses
  // ever come on several threads; the library delivers them on one.
  std::atomic<uint64_t> infos_each_{0};
  std::atomic<uint64_t> bytes_each_{0};
};

#endif  // TESK_SCAN_POOL_SIZING_H_
