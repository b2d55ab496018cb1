// System calls per small call, both processes together: the IPC library
// against a raw 64-byte round trip. Counted with strace on runs of two
// lengths; the difference divided by the difference in calls leaves out
// what starting and stopping cost.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "benchmarks/ipc/small_call_peers.h"
#include "benchmarks/support/bench_support.h"

extern char** environ;

namespace {

constexpr char kLoopFlag[] = "--loop";

// The traced program: a server and `calls` small calls to it.
int Loop(bool library, long calls) {
  bench::PeerServer server = library ? bench::StartLibraryServer() : bench::StartRawServer();
  bench::SmallCaller caller;
  bool ok = server.ok() &&
            (library ? caller.ConnectLibrary(server.path) : caller.ConnectRaw(server.path));
  for (long i = 0; i < calls && ok; ++i) ok = caller.Call();
  server.Stop();
  return ok ? 0 : 1;
}

std::string Self() {
  char path[4096];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  return n > 0 ? std::string(path, static_cast<size_t>(n)) : "";
}

// System calls by name of one traced run; empty when it failed.
std::map<std::string, double> Trace(const std::string& mode, long calls) {
  char file[] = "/tmp/tesk_bench_strace_XXXXXX";
  const int fd = mkstemp(file);
  if (fd < 0) return {};
  close(fd);
  std::string self = Self(), count = std::to_string(calls);
  const char* argv[] = {"strace",     "-f",         "-qq",         "-c",   "-U",
                        "name,calls", "-o",         file,          "--",   self.c_str(),
                        kLoopFlag,    mode.c_str(), count.c_str(), nullptr};
  pid_t pid = -1;
  int status = -1;
  if (posix_spawnp(&pid, "strace", nullptr, nullptr, const_cast<char* const*>(argv), environ) ==
      0) {
    waitpid(pid, &status, 0);
  }
  std::map<std::string, double> counts;
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) {
    std::istringstream fields(line);
    std::string name;
    double n = 0;
    if (fields >> name >> n && name != "total" && name != "syscall") counts[name] = n;
  }
  unlink(file);
  if (status != 0) counts.clear();
  return counts;
}

// Per call, by name, between a short and a long run; the total under "".
std::map<std::string, double> PerCall(const std::string& mode, long shorter, long longer) {
  const std::map<std::string, double> a = Trace(mode, shorter), b = Trace(mode, longer);
  std::map<std::string, double> per_call;
  if (a.empty() || b.empty()) return per_call;
  double total = 0;
  for (const auto& [name, n] : b) {
    const auto it = a.find(name);
    const double d = (n - (it == a.end() ? 0 : it->second)) / static_cast<double>(longer - shorter);
    per_call[name] = d;
    total += d;
  }
  per_call[""] = total;
  return per_call;
}

std::string Breakdown(const std::map<std::string, double>& per_call) {
  std::string text;
  for (const auto& [name, n] : per_call) {
    if (name.empty() || n < 0.05) continue;
    char item[64];
    std::snprintf(item, sizeof item, "%s%s %.2f", text.empty() ? "" : ", ", name.c_str(), n);
    text += item;
  }
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], kLoopFlag) == 0) {
    return Loop(std::strcmp(argv[2], "library") == 0, std::atol(argv[3]));
  }
  signal(SIGPIPE, SIG_IGN);
  const bench::Options options = bench::ParseOptions(argc, argv);
  const long shorter = options.quick ? 20 : 200, longer = options.quick ? 120 : 2200;
  const std::map<std::string, double> raw = PerCall("raw", shorter, longer);
  const std::map<std::string, double> library = PerCall("library", shorter, longer);
  if (raw.empty() || library.empty()) {
    bench::PrintNotMeasured("system calls per small call",
                            "strace did not run (scripts/install-deps.sh installs it)");
    return 0;
  }
  bench::Row row = bench::LimitRow("system calls per small call",
                                   bench::FormatCount(library.at(""), ""), library.at(""), 5);
  row.baseline = bench::FormatCount(raw.at(""), "");
  row.ratio = bench::FormatCount(library.at("") / raw.at(""), "") + "x";
  bench::PrintRow(row);
  std::printf("@note system calls per small call, library: %s; raw: %s\n",
              Breakdown(library).c_str(), Breakdown(raw).c_str());
  return 0;
}
