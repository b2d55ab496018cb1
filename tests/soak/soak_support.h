// What both soaks share: starting client processes and reading the
// daemon's figures from outside.
#ifndef TESK_TESTS_SOAK_SOAK_SUPPORT_H_
#define TESK_TESTS_SOAK_SOAK_SUPPORT_H_

#include <sys/types.h>

#include <string>

#include "tests/soak/client_roles.h"
#include "tests/support/daemon_process.h"

namespace tesk_soak {

// Starts this program again as a client of role `role`.
pid_t StartClient(const std::string& role, const RoleOptions& options);

// Raises the soft descriptor limit to the hard one: many connections at once
// need a descriptor each, here and in the daemon, which inherits it.
void RaiseDescriptorLimit();

struct DaemonFigures {
  int descriptors = 0;
  long resident_kib = 0;
  int threads = 0;
};
DaemonFigures ReadFigures(tesk_test::DaemonProcess& daemon);

// Scan handles the daemon gave out and took back, from its debug log.
struct HandleCounts {
  size_t started = 0;
  size_t released = 0;
};
HandleCounts CountHandles(tesk_test::DaemonProcess& daemon);

// Writes the daemon's log to the file named by $TESK_SOAK_LOG, if set.
void KeepLog(tesk_test::DaemonProcess& daemon);

// Milliseconds `teskctl scan` took, or -1 when it failed. `attempts` > 1
// tries again after a failure (the location service may drop a request on
// purpose); the time is that of the last attempt.
long TimedTeskctlScan(const std::string& socket_path, int attempts = 1);

}  // namespace tesk_soak

#endif  // TESK_TESTS_SOAK_SOAK_SUPPORT_H_
