// The scans the soak's clients ask for.
#ifndef TESK_TESTS_SOAK_SCAN_PLANS_H_
#define TESK_TESTS_SOAK_SCAN_PLANS_H_

#include <cstddef>
#include <random>

#include "teskclient/request_encoding.h"

namespace tesk_soak {

// A discovery scan of a random band or channel list, mode and filters.
teskclient::EncodedDiscoveryScan RandomDiscoveryScan(std::minstd_rand& random);

// A ranging scan of `targets` distinct stations.
teskclient::EncodedRangingScan RangingScan(size_t targets, bool periodic);

}  // namespace tesk_soak

#endif  // TESK_TESTS_SOAK_SCAN_PLANS_H_
