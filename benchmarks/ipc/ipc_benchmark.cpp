// A small invocation and an 8 MiB invocation through the IPC library,
// each against the raw socket transfer it rides on, measured in the same
// run. All processes are pinned to one core, so every round trip pays the
// same context switches.
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "benchmark/benchmark.h"
#include "tarnsocket/tarn_ipc.h"

namespace {

constexpr size_t kSmall = 64;
constexpr size_t kBig = 8u << 20;
constexpr size_t kAck = 8;

int g_raw_small = -1;  // socket to a process that answers 64 bytes with 64 bytes
int g_raw_big = -1;    // socket to a process that answers 8 MiB with 8 bytes
Object g_root{nullptr, nullptr};
std::vector<pid_t> g_children;

bool ReadFull(int fd, void* data, size_t size) {
  auto* bytes = static_cast<uint8_t*>(data);
  while (size > 0) {
    const ssize_t n = read(fd, bytes, size);
    if (n <= 0) return false;
    bytes += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool WriteFull(int fd, const void* data, size_t size) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  while (size > 0) {
    const ssize_t n = write(fd, bytes, size);
    if (n <= 0) return false;
    bytes += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

void PinToOneCore() {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) return;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(cpu, &allowed)) {
      cpu_set_t one;
      CPU_ZERO(&one);
      CPU_SET(cpu, &one);
      sched_setaffinity(0, sizeof one, &one);
      return;
    }
  }
}

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

// Keeps each benchmark's time per iteration for the comparison at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration) {
        times_ns_[run.benchmark_name()] =
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

void Compare(const RatioReporter& reporter, const char* label, const char* raw, const char* ipc) {
  const double raw_ns = reporter.TimeNs(raw);
  const double ipc_ns = reporter.TimeNs(ipc);
  if (raw_ns <= 0 || ipc_ns <= 0) return;
  std::printf("%s: library %.2f us, raw %.2f us, ratio %.2fx, difference %+.2f us\n", label,
              ipc_ns / 1e3, raw_ns / 1e3, ipc_ns / raw_ns, (ipc_ns - raw_ns) / 1e3);
}

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
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  Compare(reporter, "64-byte invocation", "BM_RawRoundTrip64", "BM_IpcInvoke64");
  Compare(reporter, "8 MiB invocation", "BM_RawTransfer8MiB", "BM_IpcInvoke8MiB");
  benchmark::Shutdown();

  ObjectRelease(g_root);
  close(g_raw_small);
  close(g_raw_big);
  for (pid_t child : g_children) kill(child, SIGTERM);
  for (pid_t child : g_children) waitpid(child, nullptr, 0);
  unlink(path.c_str());
  return 0;
}
