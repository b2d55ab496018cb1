// teskctl: runs discovery and ranging scans and watches disconnect events
// through the daemon's TESK interface.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "arguments.h"
#include "command.h"
#include "host/init/default_socket_dir.h"
#include "result_waiter.h"

namespace {

void PrintUsage(FILE* out) {
  fprintf(out,
          "usage: teskctl [--socket PATH] [--json] [--timeout SECONDS] COMMAND [OPTIONS]\n"
          "\n"
          "Global options (before COMMAND):\n"
          "  --socket PATH      the daemon's socket (default $TESK_SOCKET, else %s)\n"
          "  --json             one JSON object per line instead of a table\n"
          "  --timeout SECONDS  how long to wait for results (default 10)\n"
          "  -h, --help         this text\n"
          "\n"
          "Commands (COMMAND --help for its options):\n"
          "  scan   run a discovery scan and print the stations found:\n"
          "         [--mode fresh|cache|fallback] [--band N | --channels LIST]\n"
          "         [--ssid NAME]... [--bssid MAC]... and the remaining request fields\n"
          "         e.g. teskctl scan --channels 1,6,11 --ssid home\n"
          "  range  run a ranging scan against target stations, each given as\n"
          "         MAC[,KEY=VALUE...] with its node values; --periodic for a\n"
          "         periodic scan\n"
          "         e.g. teskctl range 00:0d:58:ef:88:09 a0:f3:c1:50:3e:62,v1=2462\n"
          "  watch  print disconnect events until interrupted\n"
          "\n"
          "Exit status: 0 done, 1 scan not started, 2 request refused as invalid,\n"
          "3 daemon not reachable, 4 no results within the timeout, 5 the daemon\n"
          "could not use the location service's answer, 64 bad command line,\n"
          "130 interrupted.\n",
          (DefaultSocketDir() + "/tesk").c_str());
}

int UsageError(const char* what, const std::string& detail) {
  fprintf(stderr, "teskctl: %s%s\n", what, detail.c_str());
  fprintf(stderr, "Try 'teskctl --help'.\n");
  return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  pthread_sigmask(SIG_BLOCK, &StopSignals(), nullptr);
  GlobalOptions options;
  const char* from_env = getenv("TESK_SOCKET");  // NOLINT(concurrency-mt-unsafe): no thread yet
  options.socket_path =
      from_env != nullptr && from_env[0] != '\0' ? from_env : DefaultSocketDir() + "/tesk";

  Arguments args(argc, argv, 1);
  while (!args.Done() && args.Current()[0] == '-') {
    std::string value;
    bool missing = false;
    if (args.Flag("-h") || args.Flag("--help")) {
      PrintUsage(stdout);
      return kExitOk;
    } else if (args.Flag("--json")) {
      options.json = true;
    } else if (args.Option("--socket", &value, &missing)) {
      if (missing || value.empty()) return UsageError("--socket needs a path", "");
      options.socket_path = value;
    } else if (args.Option("--timeout", &value, &missing)) {
      if (missing) return UsageError("--timeout needs a number of seconds", "");
      char* end = nullptr;
      const double seconds = strtod(value.c_str(), &end);
      if (value.empty() || *end != '\0' || !std::isfinite(seconds) || seconds <= 0 ||
          seconds > 86400) {
        return UsageError("bad --timeout: ", value);
      }
      options.timeout_ms = static_cast<int>(std::ceil(seconds * 1000));
    } else {
      return UsageError("unknown option ", args.Current());
    }
  }
  if (args.Done()) return UsageError("no command given", "");

  // Each command reads its own words: argv[0] is the command's name.
  const int first = args.index();
  const std::string command = argv[first];
  if (command == "scan") return RunScanCommand(options, argc - first, argv + first);
  if (command == "range") return RunRangeCommand(options, argc - first, argv + first);
  if (command == "watch") return RunWatchCommand(options, argc - first, argv + first);
  return UsageError("unknown command ", command);
}
