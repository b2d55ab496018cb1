// The behaviours of the soak's client processes. Each runs in a process of
// its own (the soak starts itself with --role NAME) until its time is up,
// then appends one report line to the report file and exits; the two
// "kill" roles end themselves with SIGKILL in the middle of their work.
#ifndef TESK_TESTS_SOAK_CLIENT_ROLES_H_
#define TESK_TESTS_SOAK_CLIENT_ROLES_H_

#include <string>
#include <vector>

namespace tesk_soak {

struct RoleOptions {
  std::string socket_path;
  unsigned seed = 1;
  double seconds = 5;
  std::string report_path;
};

// Names of every role, in the order the soak hands them out.
const std::vector<std::string>& RoleNames();

// Runs role `name`; returns the process exit status (0, or 1 when the role
// saw something wrong, 64 for an unknown role).
int RunRole(const std::string& name, const RoleOptions& options);

}  // namespace tesk_soak

#endif  // TESK_TESTS_SOAK_CLIENT_ROLES_H_
