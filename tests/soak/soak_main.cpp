// tesk_soak: runs the daemon and many client processes against it.
//   tesk_soak faults [--seconds N] [--clients N] [--roles ROLE,ROLE...]
//   tesk_soak pressure [--slow-senders N] [--callback-clients N]
//                      [--callback-kinds late,silent,deaf,fickle] [--pinning-connections N]
//                      [--huge-ranging-clients N] [--bound-ms N]
//   tesk_soak --role NAME ...   (one client; the soak starts itself this way)
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "tests/soak/client_roles.h"
#include "tests/soak/fault_soak.h"
#include "tests/soak/pressure_soak.h"
#include "tests/soak/soak_support.h"

namespace {

int Usage() {
  fprintf(stderr,
          "usage: tesk_soak faults [--seconds N] [--clients N] [--roles ROLE,ROLE...]\n"
          "       tesk_soak pressure [--slow-senders N] [--callback-clients N] "
          "[--callback-kinds late,silent,deaf,fickle]\n"
          "                         [--pinning-connections N]\n"
          "                         [--huge-ranging-clients N] [--bound-ms N]\n");
  return 64;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return Usage();
  const std::string mode = argv[1];
  std::string role;
  tesk_soak::RoleOptions role_options;
  double seconds = 45;
  int clients = 24;
  std::vector<std::string> roles;
  tesk_soak::PressureOptions pressure;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    const std::string value = argv[i + 1];
    if (name == "--role") {
      role = value;
    } else if (name == "--socket") {
      role_options.socket_path = value;
    } else if (name == "--seed") {
      role_options.seed = static_cast<unsigned>(std::stoul(value));
    } else if (name == "--seconds") {
      seconds = role_options.seconds = std::stod(value);
    } else if (name == "--report") {
      role_options.report_path = value;
    } else if (name == "--roles" || name == "--callback-kinds") {
      std::vector<std::string>& list = name == "--roles" ? roles : pressure.callback_kinds;
      list.clear();
      std::stringstream words(value);
      for (std::string one; std::getline(words, one, ',');) list.push_back(one);
    } else if (name == "--clients") {
      clients = std::stoi(value);
    } else if (name == "--slow-senders") {
      pressure.slow_senders = std::stoi(value);
    } else if (name == "--callback-clients") {
      pressure.callback_clients = std::stoi(value);
    } else if (name == "--pinning-connections") {
      pressure.pinning_connections = std::stoi(value);
    } else if (name == "--huge-ranging-clients") {
      pressure.huge_ranging_clients = std::stoi(value);
    } else if (name == "--bound-ms") {
      pressure.bound_ms = std::stol(value);
    } else if (i != 1) {
      return Usage();
    } else {
      --i;  // the mode word takes no value
    }
  }
  if (!role.empty()) return tesk_soak::RunRole(role, role_options);
  tesk_soak::RaiseDescriptorLimit();
  if (mode == "faults") return tesk_soak::RunFaultSoak(seconds, clients, roles);
  if (mode == "pressure") return tesk_soak::RunPressureSoak(pressure);
  return Usage();
}
