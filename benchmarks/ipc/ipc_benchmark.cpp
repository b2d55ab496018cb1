// A small invocation and an 8 MiB invocation through the IPC library,
// each against the raw socket transfer it rides on, measured in the same
// run. All processes are pinned to one core, so every round trip pays the
// same context switches.
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "benchmark/benchmark.h"
#include "benchmarks/support/bench_support.h"
#include "tarnsocket/tarn_ipc.h"

namespace {

using bench::PinToOneCore;
using bench::ReadFull;
using bench::WriteFull;

constexpr size_t kSmall = 64;
constexpr size_t kBig = 8u << 20;
constexpr size_t kAck = 8;

int g_raw_small = -1;  // socket to a process that answers 64 bytes with 64 bytes
int g_raw_big = -1;    // socket to a process that answers 8 MiB with 8 bytes
Object g_root{nullptr, nullptr};
std::vector<pid_t> g_children;

// A child that reads `in` bytes and answers `out` bytes until its socket ends.
int StartRawPeer(size_t in, size_t out) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    std::vector<uint8_t> buffer(in);
    while (ReadFull(fds[1], buffer.data(), in) && WriteFull(fds[1], buffer.data(), out)) {
    }
    _exit(0);
  }
  close(fds[1]);
  g_children.push_back(pid);
  return fds[0];
}

int32_t BenchRootInvoke(void*, uint32_t op, ObjectArg* args, uint32_t counts) {
  if ((op & OBJECT_OP_MASK) >= OBJECT_OP_RETAIN) return OBJECT_OK;
  if (counts != 1) return OBJECT_ERROR_INVALID;
  return static_cast<const uint8_t*>(args[0].b.ptr)[0];  // touch what arrived
}

// A child serving BenchRootInvoke; returns the socket path once it serves.
std::string StartLibraryPeer() {
  const std::string path = "/tmp/ipc_benchmark_" + std::to_string(getpid());
  unlink(path.c_str());
  int ready[2];
  if (pipe(ready) != 0) return "";
  const pid_t pid = fork();
  if (pid == 0) {
    close(ready[0]);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) _exit(1);
    void* service = TarnIPC_startServiceOnSocket(fd, BenchRootInvoke, nullptr);
    if (service == nullptr) _exit(1);
    const char byte = 1;
    WriteFull(ready[1], &byte, 1);
    TarnIPC_join(service);
    _exit(0);
  }
  close(ready[1]);
  g_children.push_back(pid);
  char byte = 0;
  const bool served = ReadFull(ready[0], &byte, 1);
  close(ready[0]);
  return served ? path : "";
}

void BM_RawRoundTrip64(benchmark::State& state) {
  uint8_t buffer[kSmall] = {1};
  for (auto _ : state) {
    if (!WriteFull(g_raw_small, buffer, kSmall) || !ReadFull(g_raw_small, buffer, kSmall)) {
      state.SkipWithError("raw peer gone");
      break;
    }
  }
}
BENCHMARK(BM_RawRoundTrip64);

void BM_IpcInvoke64(benchmark::State& state) {
  uint8_t buffer[kSmall] = {1};
  ObjectArg args[1];
  args[0].b = ObjectBuf{buffer, kSmall};
  for (auto _ : state) {
    if (g_root.invoke(g_root.context, 0, args, 1) != 1) {
      state.SkipWithError("call failed");
      break;
    }
  }
}
BENCHMARK(BM_IpcInvoke64);

void BM_RawTransfer8MiB(benchmark::State& state) {
  std::vector<uint8_t> buffer(kBig, 1);
  for (auto _ : state) {
    if (!WriteFull(g_raw_big, buffer.data(), kBig) || !ReadFull(g_raw_big, buffer.data(), kAck)) {
      state.SkipWithError("raw peer gone");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBig));
}
BENCHMARK(BM_RawTransfer8MiB);

void BM_IpcInvoke8MiB(benchmark::State& state) {
  std::vector<uint8_t> buffer(kBig, 1);
  ObjectArg args[1];
  args[0].b = ObjectBuf{buffer.data(), kBig};
  for (auto _ : state) {
    if (g_root.invoke(g_root.context, 0, args, 1) != 1) {
      state.SkipWithError("call failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBig));
}
BENCHMARK(BM_IpcInvoke8MiB);

// Keeps the time per iteration of the benchmarks that run one kind of round
// trip each, back to back, for the comparison printed at the end.
class TimeReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration) {
        times_ns_[run.run_name.function_name] =
            run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e9;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  double TimeNs(const std::string& name) const {
    auto it = times_ns_.find(name);
    return it == times_ns_.end() ? 0 : it->second;
  }

 private:
  std::map<std::string, double> times_ns_;
};

void PrintComparison(const char* label, const char* how, double raw_ns, double ipc_ns) {
  if (raw_ns <= 0 || ipc_ns <= 0) return;
  std::printf("%s (%s): library %.2f us, raw %.2f us, ratio %.2fx, difference %+.2f us\n", label,
              how, ipc_ns / 1e3, raw_ns / 1e3, ipc_ns / raw_ns, (ipc_ns - raw_ns) / 1e3);
}

// Raw and library round trips alternate within one loop, so that whatever
// else runs on the shared core hits both alike; the medians of the
// per-round-trip times are compared.
double Median(std::vector<double>* samples) {
  if (samples->empty()) return 0;
  auto middle = samples->begin() + static_cast<std::ptrdiff_t>(samples->size() / 2);
  std::nth_element(samples->begin(), middle, samples->end());
  return *middle;
}

double NowNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

struct Comparison {
  double raw_ns = 0;
  double ipc_ns = 0;
};
std::map<std::string, Comparison> g_comparisons;

void Interleaved(benchmark::State& state, const char* label, int raw_fd, size_t size,
                 size_t answer) {
  std::vector<uint8_t> buffer(size, 1);
  ObjectArg args[1];
  args[0].b = ObjectBuf{buffer.data(), size};
  std::vector<double> raw;
  std::vector<double> ipc;
  for (auto _ : state) {
    const double start = NowNs();
    if (!WriteFull(raw_fd, buffer.data(), size) || !ReadFull(raw_fd, buffer.data(), answer)) {
      state.SkipWithError("raw peer gone");
      break;
    }
    const double middle = NowNs();
    if (g_root.invoke(g_root.context, 0, args, 1) != 1) {
      state.SkipWithError("call failed");
      break;
    }
    raw.push_back(middle - start);
    ipc.push_back(NowNs() - middle);
  }
  Comparison& result = g_comparisons[label];
  result.raw_ns = Median(&raw);
  result.ipc_ns = Median(&ipc);
  state.counters["raw_us"] = result.raw_ns / 1e3;
  state.counters["ipc_us"] = result.ipc_ns / 1e3;
}

void BM_Interleaved64(benchmark::State& state) {
  Interleaved(state, "64-byte invocation", g_raw_small, kSmall, kSmall);
}
BENCHMARK(BM_Interleaved64)->MinTime(2.0);

void BM_Interleaved8MiB(benchmark::State& state) {
  Interleaved(state, "8 MiB invocation", g_raw_big, kBig, kAck);
}
BENCHMARK(BM_Interleaved8MiB)->MinTime(2.0);

}  // namespace

int main(int argc, char** argv) {
  // Pinned and forked before any thread exists; the children inherit the core.
  PinToOneCore();
  g_raw_small = StartRawPeer(kSmall, kSmall);
  g_raw_big = StartRawPeer(kBig, kAck);
  const std::string path = StartLibraryPeer();
  if (g_raw_small < 0 || g_raw_big < 0 || path.empty() ||
      TarnIPC_connect(path.c_str(), &g_root) != 0) {
    std::fprintf(stderr, "cannot set up the peers\n");
    return 1;
  }

  benchmark::Initialize(&argc, argv);
  TimeReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  PrintComparison("64-byte invocation", "mean, back to back", reporter.TimeNs("BM_RawRoundTrip64"),
                  reporter.TimeNs("BM_IpcInvoke64"));
  PrintComparison("8 MiB invocation", "mean, back to back", reporter.TimeNs("BM_RawTransfer8MiB"),
                  reporter.TimeNs("BM_IpcInvoke8MiB"));
  for (const auto& [label, result] : g_comparisons) {
    PrintComparison(label.c_str(), "median, interleaved", result.raw_ns, result.ipc_ns);
  }
  benchmark::Shutdown();

  ObjectRelease(g_root);
  close(g_raw_small);
  close(g_raw_big);
  for (pid_t child : g_children) kill(child, SIGTERM);
  for (pid_t child : g_children) waitpid(child, nullptr, 0);
  unlink(path.c_str());
  return 0;
}
