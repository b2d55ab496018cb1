// The fault soak: many clients behaving well and badly at once while the
// simulated location service injects faults; afterwards the daemon must be
// alive, answering, holding nothing for anybody, and back to its baseline.
#ifndef TESK_TESTS_SOAK_FAULT_SOAK_H_
#define TESK_TESTS_SOAK_FAULT_SOAK_H_

#include <string>
#include <vector>

namespace tesk_soak {

// Returns 0 when every end condition held; prints the figures either way.
// `roles`: the client roles handed out in turn (empty: all of them).
int RunFaultSoak(double seconds, int clients, const std::vector<std::string>& roles);

}  // namespace tesk_soak

#endif  // TESK_TESTS_SOAK_FAULT_SOAK_H_
