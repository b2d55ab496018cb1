// Pressure: slow senders, clients that answer late, never answer or never
// read, and clients that pin memory, all at once, while a well-behaved
// client runs `teskctl scan`. Its scans must stay within their normal time
// (measured first, in the same run) plus the bound the IPC library
// documents for a slow peer, and the daemon's memory must come back to
// within 16 MiB of its idle size once the attackers have gone.
#ifndef TESK_TESTS_SOAK_PRESSURE_SOAK_H_
#define TESK_TESTS_SOAK_PRESSURE_SOAK_H_

#include <string>
#include <vector>

namespace tesk_soak {

struct PressureOptions {
  int slow_senders = 1000;
  int callback_clients = 50;  // handed the kinds below in turn
  std::vector<std::string> callback_kinds = {"late", "silent", "deaf"};
  int pinning_connections = 8;   // each sends 16 MiB calls
  int huge_ranging_clients = 1;  // each runs 100,000-target ranging scans
  long bound_ms = 250;           // the delay a slow peer may cost others
};

int RunPressureSoak(const PressureOptions& options);

}  // namespace tesk_soak

#endif  // TESK_TESTS_SOAK_PRESSURE_SOAK_H_
