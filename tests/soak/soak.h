// tesk_soak: the daemon under many client processes at once, good and bad.
// The soak starts itself again with --role NAME for each client, which runs
// until its time is up, appends one report line and exits.
#ifndef TESK_TESTS_SOAK_SOAK_H_
#define TESK_TESTS_SOAK_SOAK_H_

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "teskclient/request_encoding.h"
#include "tests/support/daemon_process.h"

namespace tesk_soak {

struct RoleOptions {
  std::string socket_path;
  unsigned seed = 1;
  double seconds = 5;
  std::string report_path;
};
// The roles the fault soak hands out in turn by default.
const std::vector<std::string>& RoleNames();
// 0, or 1 when the role saw something wrong, 64 for an unknown role.
int RunRole(const std::string& name, const RoleOptions& options);
// Starts this program again as a client of role `role`.
pid_t StartClient(const std::string& role, const RoleOptions& options);

int RunFaultSoak(double seconds, int clients, const std::vector<std::string>& roles);

struct PressureOptions {
  int slow_senders = 1000;
  int callback_clients = 50;  // handed the kinds below in turn
  std::vector<std::string> callback_kinds = {"late", "silent", "deaf"};
  int pinning_connections = 8;   // each sends 16 MiB calls
  int huge_ranging_clients = 1;  // each runs 100,000-target ranging scans
  long bound_ms = 250;           // the delay a slow peer may cost others
};
int RunPressureSoak(const PressureOptions& options);

// The daemon seen from outside.
bool StartDaemon(tesk_test::DaemonProcess& daemon);
struct DaemonFigures {
  int descriptors = 0;
  long resident_kib = 0;
  int threads = 0;
};
DaemonFigures ReadFigures(tesk_test::DaemonProcess& daemon);
// Polls the figures until `done` holds for them, 30 s at most.
template <typename Done>
DaemonFigures Settle(tesk_test::DaemonProcess& daemon, Done done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  DaemonFigures figures;
  do {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    figures = ReadFigures(daemon);
  } while (std::chrono::steady_clock::now() < deadline && !done(figures));
  return figures;
}
// Writes the daemon's log to the file named by $TESK_SOAK_LOG, if set.
void KeepLog(tesk_test::DaemonProcess& daemon);
// Milliseconds `teskctl scan` took, or -1 when it failed. `attempts` > 1
// tries again after a failure (the location service may drop a request on
// purpose); the time is that of the last attempt.
long TimedTeskctlScan(const std::string& socket_path, int attempts = 1);

// A ranging scan of `targets` distinct stations.
teskclient::EncodedRangingScan RangingScan(size_t targets, bool periodic);

// A peer that speaks the IPC wire protocol by hand, for what no well-behaved
// client does.
using Bytes = std::vector<uint8_t>;
int RawConnect(const std::string& socket_path);  // blocking, or -1
// An invoke frame carrying `buffers` and, when `callback_handle` is not 0,
// one object of ours (an export handle of the sender); `out_objs` outputs.
Bytes InvokeFrame(uint32_t call_id, uint32_t handle, uint32_t op, const std::vector<Bytes>& buffers,
                  uint32_t callback_handle, unsigned out_objs);
bool SendAll(int fd, const Bytes& bytes);
// The handle of service `interface_id` from the root, 0 on failure.
uint32_t RawOpenService(int fd, uint32_t interface_id);
// True once the peer ended the connection within `timeout`; anything it
// sends meanwhile is dropped.
bool WaitForEnd(int fd, std::chrono::milliseconds timeout);
// One frame per way of breaking the protocol; each must cost the connection.
std::vector<Bytes> MalformedFrames();

}  // namespace tesk_soak

#endif  // TESK_TESTS_SOAK_SOAK_H_
