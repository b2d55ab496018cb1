// Scenario text for the simulated location service with any number of
// access points, all answering at once (latency 0).
#ifndef TESK_BENCHMARKS_SUPPORT_NEIGHBOURHOOD_TEXT_H_
#define TESK_BENCHMARKS_SUPPORT_NEIGHBOURHOOD_TEXT_H_

#include <cstddef>
#include <string>

namespace bench {

// The built-in neighbourhood's 21 access points (real frames), repeated
// under fresh addresses, channels and names until there are `count` of them.
std::string NeighbourhoodText(size_t count);

}  // namespace bench

#endif  // TESK_BENCHMARKS_SUPPORT_NEIGHBOURHOOD_TEXT_H_
