// Small calls from 4, 16 and 64 client processes at once: calls per second
// and the 99th percentile of their latency through the IPC library, against
// raw ping-pong of the same 64 bytes with a thread per connection. Raw and
// library phases alternate, each going first in every other repetition, and
// the medians over the repetitions are compared. Not pinned: many callers
// are meant to use every core.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "benchmarks/ipc/small_call_peers.h"
#include "benchmarks/support/bench_support.h"

namespace {

using bench::NowNs;

struct Phase {
  double calls_per_second = 0;
  double p99_ns = 0;
};

// Runs in a forked caller: connects, says it is ready, waits for the start,
// calls for `seconds` and sends back every latency (float ns).
[[noreturn]] void Caller(const bench::PeerServer& server, bool library, double seconds, int ready,
                         int go, int out) {
  prctl(PR_SET_NAME, library ? "library caller" : "raw caller");  // for profiles
  bench::SmallCaller caller;
  const bool connected =
      (library ? caller.ConnectLibrary(server.path) : caller.ConnectRaw(server.path)) &&
      caller.Call();
  const char byte = connected ? 1 : 0;
  bench::WriteFull(ready, &byte, 1);
  char start_signal;
  (void)!read(go, &start_signal, 1);  // end of file: go
  std::vector<float> latencies;
  if (connected) {
    const double end = NowNs() + seconds * 1e9;
    for (double now = NowNs(); now < end;) {
      if (!caller.Call()) break;
      const double after = NowNs();
      latencies.push_back(static_cast<float>(after - now));
      now = after;
    }
  }
  const uint64_t count = latencies.size();
  bench::WriteFull(out, &count, sizeof count);
  bench::WriteFull(out, latencies.data(), count * sizeof(float));
  _exit(0);
}

bool Run(const bench::PeerServer& server, bool library, int clients, double seconds, Phase* phase) {
  int ready[2], go[2];
  if (pipe(ready) != 0 || pipe(go) != 0) return false;
  std::vector<pid_t> pids;
  std::vector<int> outs;
  for (int c = 0; c < clients; ++c) {
    int out[2];
    if (pipe(out) != 0) break;
    const pid_t pid = fork();
    if (pid == 0) {
      close(ready[0]);
      close(go[1]);
      close(out[0]);
      Caller(server, library, seconds, ready[1], go[0], out[1]);
    }
    close(out[1]);
    if (pid < 0) {
      close(out[0]);
      break;
    }
    pids.push_back(pid);
    outs.push_back(out[0]);
  }
  close(ready[1]);
  close(go[0]);
  bool ok = static_cast<int>(pids.size()) == clients;
  for (size_t i = 0; i < pids.size(); ++i) {
    char byte = 0;
    ok = bench::ReadFull(ready[0], &byte, 1) && byte == 1 && ok;
  }
  close(go[1]);  // every caller starts
  std::vector<double> latencies;
  for (int fd : outs) {
    uint64_t count = 0;
    if (bench::ReadFull(fd, &count, sizeof count)) {
      std::vector<float> some(count);
      if (bench::ReadFull(fd, some.data(), count * sizeof(float))) {
        latencies.insert(latencies.end(), some.begin(), some.end());
      }
    }
    close(fd);
  }
  for (pid_t pid : pids) waitpid(pid, nullptr, 0);
  close(ready[0]);
  phase->calls_per_second = static_cast<double>(latencies.size()) / seconds;
  phase->p99_ns = bench::Percentile(latencies, 0.99);
  return ok && !latencies.empty();
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  // --clients N measures one count only (to profile it, say).
  const bench::Options options = bench::ParseOptions(argc, argv, "--clients");
  // Both servers are forked before anything here starts a thread.
  bench::PeerServer library = bench::StartLibraryServer();
  bench::PeerServer raw = bench::StartRawServer();
  if (!library.ok() || !raw.ok()) {
    std::printf("@note the servers did not start\n");
    return 1;
  }
  const int repetitions = options.quick ? 1 : 7;
  const double seconds = options.quick ? 0.05 : 1.0;
  for (int clients : {4, 16, 64}) {
    if (options.only != 0 && clients != options.only) continue;
    std::vector<double> raw_rate, library_rate, raw_p99, library_p99;
    bool ok = true;
    for (int r = 0; r < repetitions && ok; ++r) {
      Phase with_raw, with_library;
      const auto phase = [&](bool through_library) {
        return through_library ? Run(library, true, clients, seconds, &with_library)
                               : Run(raw, false, clients, seconds, &with_raw);
      };
      const bool library_first = r % 2 == 1;
      ok = phase(library_first) && phase(!library_first);
      raw_rate.push_back(with_raw.calls_per_second);
      library_rate.push_back(with_library.calls_per_second);
      raw_p99.push_back(with_raw.p99_ns);
      library_p99.push_back(with_library.p99_ns);
    }
    const std::string who = std::to_string(clients) + " client processes";
    if (!ok) {
      bench::PrintNotMeasured("calls per second, " + who, "not every caller connected and called");
      continue;
    }
    // Both sides swing between repetitions by how the scheduler happens to
    // place callers and servers on the cores: the range says how far.
    const auto range = [](const std::vector<double>& rates) {
      const auto [low, high] = std::minmax_element(rates.begin(), rates.end());
      return bench::FormatCount(*low, "") + " to " + bench::FormatCount(*high, "/s");
    };
    std::printf("@note calls per second over %d repetitions, %s: raw %s, library %s\n", repetitions,
                who.c_str(), range(raw_rate).c_str(), range(library_rate).c_str());
    const double rate = bench::Median(library_rate), raw_rate_median = bench::Median(raw_rate);
    const double p99 = bench::Median(library_p99), raw_p99_median = bench::Median(raw_p99);
    bench::PrintRow(bench::RatioRow("calls per second, " + who, bench::FormatCount(rate, "/s"),
                                    bench::FormatCount(raw_rate_median, "/s"),
                                    rate / raw_rate_median, 0.9, true));
    bench::PrintRow(bench::RatioRow("p99 latency, " + who, bench::FormatNs(p99),
                                    bench::FormatNs(raw_p99_median), p99 / raw_p99_median, 1.3));
  }
  library.Stop();
  raw.Stop();
  return 0;
}
