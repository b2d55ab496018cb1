// Discovery scans end to end: from the client's call to the last byte of the
// results at the client, through the daemon (started with an inherited
// control socket, as init starts it), the IPC library and the simulated
// location service answering at once; against a raw round trip of the same
// bytes between two processes over a Unix stream socket. Both sides run on
// one core and alternate scan by scan, so noise hits them alike. Also what a
// scan costs in context switches, the daemon's page faults per scan and its
// resident memory over many scans.
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "benchmarks/scan/scan_client.h"
#include "benchmarks/support/bench_support.h"
#include "benchmarks/support/held_scans.h"
#include "benchmarks/support/neighbourhood_text.h"
#include "ky_loc_fw/log.h"
#include "scan/scan_heap.h"
#include "tests/support/daemon_process.h"
#include "tests/support/temp_dir.h"

extern char** environ;

namespace {

using bench::FormatCount;
using bench::FormatNs;
using bench::NowNs;

constexpr char kRawPeerFlag[] = "--raw-peer";
constexpr int kRawPeerFd = 3;

// The spawned peer of the raw round trip: reads `in` bytes, answers `out`
// bytes, until its socket ends.
int RawPeerMain(size_t in, size_t out) {
  prctl(PR_SET_NAME, "raw peer");  // for profiles
  std::vector<uint8_t> buffer(std::max(in, out), 1);
  while (bench::ReadFull(kRawPeerFd, buffer.data(), in) &&
         bench::WriteFull(kRawPeerFd, buffer.data(), out)) {
  }
  return 0;
}

// This program again, as a raw peer in a process of its own. Spawned rather
// than forked: the IPC library's threads already run here.
class RawPeer {
 public:
  RawPeer(size_t in, size_t out) : in_(in), out_(out), buffer_(std::max(in, out), 1) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], kRawPeerFd);
    std::string self = tesk_test::BuiltBinary("scan_benchmark");
    std::string in_text = std::to_string(in), out_text = std::to_string(out);
    std::string flag = kRawPeerFlag;
    char* argv[] = {self.data(), flag.data(), in_text.data(), out_text.data(), nullptr};
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv, environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    fd_ = fds[0];
  }
  ~RawPeer() {
    if (fd_ >= 0) close(fd_);
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
  }
  bool ok() const { return fd_ >= 0 && pid_ > 0; }
  pid_t pid() const { return pid_; }
  // ns, or -1 when the peer is gone.
  double RoundTrip() {
    const double start = NowNs();
    if (!bench::WriteFull(fd_, buffer_.data(), in_) ||
        !bench::ReadFull(fd_, buffer_.data(), out_)) {
      return -1;
    }
    return NowNs() - start;
  }

 private:
  size_t in_, out_;
  std::vector<uint8_t> buffer_;
  int fd_ = -1;
  pid_t pid_ = -1;
};

// A time against the baseline, with no goal.
void InformationRow(const std::string& figure, double ns, double base_ns) {
  bench::Row row;
  row.figure = figure;
  row.value = FormatNs(ns);
  row.baseline = FormatNs(base_ns);
  row.ratio = FormatCount(ns / base_ns, "") + "x";
  bench::PrintRow(row);
}

int64_t OwnContextSwitches() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_nvcsw + usage.ru_nivcsw;
}

// The simulated service's own part of a scan, measured in this process on
// the same scenario: sendRequest, which copies the request and builds the
// response; -1 if it failed. Deleting the response comes after the delivery,
// outside the scan's time; it is timed too (*delete_ns), to be shown.
double TimeService(bench::HeldScans& service, double* delete_ns) {
  const double build_ns = service.Send();
  const double built = NowNs();
  service.Drop();
  *delete_ns = NowNs() - built;
  return build_ns;
}

struct Plan {
  size_t aps;
  int repetitions;  // of the interleaved runs
  int per_repetition;
};

struct Daemon {
  explicit Daemon(const std::string& scenario) {
    std::ofstream(dir.Join("scenario")) << scenario;
    tesk_test::DaemonProcess::Options options;
    options.environment.push_back("VELA_SCENARIO=" + dir.Join("scenario"));
    options.log_levels = "tesk=1";  // what the daemon sets itself
    process = std::make_unique<tesk_test::DaemonProcess>(options);
    serving = process->WaitUntilServing();
  }
  tesk_test::TempDir dir;
  std::unique_ptr<tesk_test::DaemonProcess> process;
  bool serving = false;
};

std::string Aps(size_t n) {
  std::string digits = std::to_string(n);
  for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3) {
    digits.insert(static_cast<size_t>(at), ",");
  }
  return digits + (n == 1 ? " AP" : " APs");
}

// The error lines of a log, on one line.
std::string Errors(const std::string& log) {
  std::string errors;
  size_t start = 0;
  for (size_t end; (end = log.find('\n', start)) != std::string::npos; start = end + 1) {
    const std::string line = log.substr(start, end - start);
    if (line.find(" E ") == std::string::npos) continue;
    errors += (errors.empty() ? "" : " | ") + line;
  }
  return errors.empty() ? "nothing logged" : errors;
}

// Scans until `total` scans have run; false when one fails.
bool ScanUntil(bench::ScanClient* client, long* done, long total) {
  for (; *done < total; ++*done) {
    if (client->Scan() < 0) return false;
  }
  return true;
}

void MeasureMemory(bench::ScanClient* client, pid_t daemon, long done, bool quick) {
  const long first = quick ? 100 : 10000;
  const long second = quick ? 1000 : 100000;
  const double start = NowNs();
  // Read once the daemon is quiet, after the IPC library's idle trim (a
  // second): what the scans left behind, not the heap's working slack.
  auto resident_at_rest = [daemon] {
    usleep(1500 * 1000);
    return bench::ReadCounters(daemon).resident_kb;
  };
  if (!ScanUntil(client, &done, first))
    return bench::PrintNotMeasured("daemon RSS", "a scan failed");
  const int64_t rss_first = resident_at_rest();
  if (!ScanUntil(client, &done, second))
    return bench::PrintNotMeasured("daemon RSS", "a scan failed");
  const int64_t rss_second = resident_at_rest();
  std::printf("@note %ld scans of 21 APs took %.1f s in all\n", second, (NowNs() - start) / 1e9);
  bench::Row after_first;
  after_first.figure = "daemon RSS after " + std::to_string(first) + " scans";
  after_first.value = FormatCount(static_cast<double>(rss_first), "kB");
  bench::PrintRow(after_first);
  bench::PrintRow(bench::RatioRow("daemon RSS after " + std::to_string(second) + " scans",
                                  FormatCount(static_cast<double>(rss_second), "kB"),
                                  FormatCount(static_cast<double>(rss_first), "kB"),
                                  static_cast<double>(rss_second) / static_cast<double>(rss_first),
                                  1.01));
}

// What big scans leave resident once the daemon has been idle for a while
// (the IPC library gives free heap memory back after a second of quiet).
void MeasureReturn(pid_t daemon, int64_t idle_kb, const std::string& label) {
  constexpr double kBoundMib = 16;
  double above_mib = 0;
  for (int waited_ms = 0; waited_ms <= 5000; waited_ms += 100) {
    above_mib = static_cast<double>(bench::ReadCounters(daemon).resident_kb - idle_kb) / 1024;
    if (above_mib <= kBoundMib) break;
    usleep(100 * 1000);
  }
  bench::PrintRow(bench::LimitRow("daemon RSS above idle after scans of " + label + ", MiB",
                                  FormatCount(above_mib, ""), above_mib, kBoundMib));
}

void Measure(const Plan& plan, bool quick) {
  const std::string label = Aps(plan.aps);
  const std::string scenario = bench::NeighbourhoodText(plan.aps);
  Daemon daemon(scenario);
  if (!daemon.serving) {
    return bench::PrintNotMeasured("scan " + label,
                                   "the daemon did not serve: " + Errors(daemon.process->Log()));
  }
  const pid_t daemon_pid = daemon.process->pid();
  const int64_t idle_kb = bench::ReadCounters(daemon_pid).resident_kb;
  if (plan.aps == 21) {
    bench::Row idle;
    idle.figure = "daemon idle RSS";
    idle.value = FormatCount(static_cast<double>(idle_kb), "kB");
    bench::PrintRow(idle);
  }
  bench::ScanClient client(daemon.process->socket_path());
  if (!client.ok() || client.Scan() < 0) {
    return bench::PrintNotMeasured("scan " + label, "no results: " + Errors(daemon.process->Log()));
  }
  long scans = 1;
  if (client.records() != plan.aps) {
    std::printf("@note scan %s: %zu records delivered\n", label.c_str(), client.records());
  }
  RawPeer raw(client.RequestBytes(), client.result_bytes());
  if (!raw.ok() || raw.RoundTrip() < 0)
    return bench::PrintNotMeasured("scan " + label, "no raw peer");

  // The service's own time too, in the same rounds.
  auto held = std::make_unique<bench::HeldScans>(scenario);
  double ignored;
  TimeService(*held, &ignored);  // the first request reads the neighbourhood's frames
  std::vector<double> scan_ns, raw_ns, service_ns, delete_ns;
  for (int r = 0; r < plan.repetitions; ++r) {
    for (int i = 0; i < plan.per_repetition; ++i) {
      const double raw_time = raw.RoundTrip();
      const double scan_time = client.Scan();
      if (raw_time < 0 || scan_time < 0)
        return bench::PrintNotMeasured("scan " + label, "a scan failed");
      raw_ns.push_back(raw_time);
      scan_ns.push_back(scan_time);
      ++scans;
      // What a scan leaves to do after its last byte (the service deletes
      // its response, the handle is released) must not land in the next
      // measurement. A response of thousands of measurements takes
      // milliseconds to delete, and its thread waits on the heap's lock now
      // and then meanwhile: quiet must last a while there.
      bench::WaitQuiet(daemon_pid, plan.aps >= 1000 ? 500e3 : 0);
      bench::WaitQuiet(getpid());
      delete_ns.emplace_back();
      service_ns.push_back(TimeService(*held, &delete_ns.back()));
      if (service_ns.back() < 0)
        return bench::PrintNotMeasured("scan " + label, "the service did not answer here");
    }
  }
  held.reset();

  // Counted apart from the timing, each side on its own, over at least 60
  // scans and after as many in the same back-to-back rhythm: there one
  // scan's response is still being deleted while the next is built, and the
  // heap takes a few such scans to settle at what both need (now and then
  // it still grows once more, a one-off that fewer scans would overstate).
  const int counted = std::max(plan.per_repetition, 60);
  for (int i = 0; i < counted; ++i, ++scans) {
    if (client.Scan() < 0) return bench::PrintNotMeasured("scan " + label, "a scan failed");
  }
  const bench::ProcessCounters daemon_before = bench::ReadCounters(daemon_pid);
  const auto daemon_threads_before = bench::ThreadSwitches(daemon_pid);
  const auto own_threads_before = bench::ThreadSwitches(getpid());
  int64_t own_before = OwnContextSwitches();
  for (int i = 0; i < counted; ++i, ++scans) {
    if (client.Scan() < 0) return bench::PrintNotMeasured("scan " + label, "a scan failed");
  }
  const bench::ProcessCounters daemon_after = bench::ReadCounters(daemon_pid);
  std::printf(
      "@note context switches per scan (voluntary+involuntary), %s: daemon: %s; client: %s\n",
      label.c_str(),
      bench::SwitchesBetween(daemon_pid, daemon_threads_before, bench::ThreadSwitches(daemon_pid),
                             counted)
          .c_str(),
      bench::SwitchesBetween(getpid(), own_threads_before, bench::ThreadSwitches(getpid()), counted)
          .c_str());
  const double scan_switches =
      static_cast<double>(daemon_after.context_switches - daemon_before.context_switches +
                          OwnContextSwitches() - own_before) /
      counted;
  const double faults =
      static_cast<double>(daemon_after.minor_faults - daemon_before.minor_faults) / counted;
  const bench::ProcessCounters peer_before = bench::ReadCounters(raw.pid());
  own_before = OwnContextSwitches();
  for (int i = 0; i < counted; ++i) raw.RoundTrip();
  const double raw_switches =
      static_cast<double>(bench::ReadCounters(raw.pid()).context_switches -
                          peer_before.context_switches + OwnContextSwitches() - own_before) /
      counted;

  const double scan = bench::Median(scan_ns);
  const double base = bench::Median(raw_ns);
  std::printf("@note scan %s: %zu bytes back, %zu bytes out\n", label.c_str(),
              client.result_bytes(), client.RequestBytes());
  if (plan.aps == 21) {
    bench::PrintRow(bench::RatioRow("scan " + label + ", one core", FormatNs(scan), FormatNs(base),
                                    scan / base, 3.0));
    bench::Row switches = bench::LimitRow("context switches per scan, " + label,
                                          FormatCount(scan_switches, ""), scan_switches, 8);
    switches.baseline = FormatCount(raw_switches, "");
    switches.ratio = FormatCount(scan_switches / raw_switches, "") + "x";
    bench::PrintRow(switches);
  } else {
    InformationRow("scan " + label + ", one core", scan, base);
  }
  const double service = bench::Median(service_ns);
  std::printf(
      "@note the simulated service builds the response to a scan of %s in %s and "
      "deletes it after the delivery in %s\n",
      label.c_str(), FormatNs(service).c_str(), FormatNs(bench::Median(delete_ns)).c_str());
  bench::Row own;
  own.figure = "simulated service builds the response, " + label;
  own.value = FormatNs(service);
  bench::PrintRow(own);
  const double net = scan - service;
  if (plan.aps >= 10000) {
    bench::PrintRow(bench::RatioRow("scan " + label + " less service time", FormatNs(net),
                                    FormatNs(base), net / base, 4.0));
  } else {
    InformationRow("scan " + label + " less service time", net, base);
  }
  const std::string faults_figure = "daemon page faults per scan, " + label;
  if (plan.aps >= 10000) {
    bench::PrintRow(bench::LimitRow(faults_figure, FormatCount(faults, ""), faults, 50));
  } else {
    bench::Row row;
    row.figure = faults_figure;
    row.value = FormatCount(faults, "");
    bench::PrintRow(row);
  }
  if (plan.aps >= 10000) MeasureReturn(daemon_pid, idle_kb, label);
  if (plan.aps == 21) MeasureMemory(&client, daemon_pid, scans, quick);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], kRawPeerFlag) == 0) {
    return RawPeerMain(std::strtoul(argv[2], nullptr, 10), std::strtoul(argv[3], nullptr, 10));
  }
  signal(SIGPIPE, SIG_IGN);
  // The service's time is taken here, apart from the daemon: on a heap that
  // keeps its memory between scans, as the daemon's does.
  KeepScanMemoryForTheNextScan();
  // --aps N measures one neighbourhood only (to profile it, say).
  const bench::Options options = bench::ParseOptions(argc, argv, "--aps");
  ky_loc_fw::log_set_local_level_for_tag("vela", 0);
  // Pinned before anything starts: the daemon and the raw peer inherit the core.
  if (!bench::PinToOneCore()) std::printf("@note could not pin to one core\n");
  const std::vector<Plan> plans =
      options.quick ? std::vector<Plan>{{21, 1, 5}, {1000, 1, 3}, {10000, 1, 2}}
                    : std::vector<Plan>{{21, 7, 300}, {1000, 7, 30}, {10000, 7, 6}};
  for (const Plan& plan : plans) {
    if (options.only == 0 || plan.aps == static_cast<size_t>(options.only)) {
      Measure(plan, options.quick);
    }
  }
  return 0;
}
