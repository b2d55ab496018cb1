// tesk_soak: the daemon under many client processes at once, good and bad.
// Each client is a fork of the soak that plays one role until its time is
// up or it is sent SIGTERM, appends one report line and exits.
#ifndef TESK_TESTS_SOAK_SOAK_H_
#define TESK_TESTS_SOAK_SOAK_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/support/daemon_process.h"
#include "tests/support/temp_dir.h"

namespace tesk_soak {

struct RoleOptions {
  std::string socket_path;
  unsigned seed = 1;
  double seconds = 5;
  std::string report_path;
};
// 0, or 1 when the role saw something wrong, 64 for an unknown role.
int RunRole(const std::string& name, const RoleOptions& options);
pid_t StartClient(const std::string& role, const RoleOptions& options);

int RunFaultSoak(double seconds, int clients, const std::vector<std::string>& roles);
int RunPressureSoak(const std::vector<std::string>& callback_kinds, int huge_ranging_clients);

struct Figures {
  int descriptors = 0;
  long resident_kib = 0;
  int threads = 0;
};

// One soak's daemon, and what every soak checks of it at the end.
struct Soak {
  explicit Soak(const std::vector<std::string>& environment);
  Figures Read();
  // Waits (30 s at most) until the daemon holds nothing for anybody and is
  // back to `baseline`, then prints the clients' reports and the figures.
  // True when that happened, every callback retained was released, no
  // client failed, and the daemon is alive and answering.
  bool Check(const Figures& baseline, int failed_clients);

  tesk_test::TempDir dir;
  const std::string report = dir.Join("reports");
  tesk_test::DaemonProcess daemon;
};

// Milliseconds `teskctl scan` took, or -1 when every attempt failed (the
// location service may drop a request on purpose).
long TimedTeskctlScan(const std::string& socket_path, int attempts = 1);

}  // namespace tesk_soak

#endif  // TESK_TESTS_SOAK_SOAK_H_
