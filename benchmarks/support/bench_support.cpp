#include "benchmarks/support/bench_support.h"

#include <dirent.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace bench {

double NowNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

double Median(std::vector<double> samples) {
  return Percentile(std::move(samples), 0.5);
}

double Percentile(std::vector<double> samples, double fraction) {
  if (samples.empty()) return 0;
  const auto rank =
      static_cast<size_t>(std::lround(fraction * static_cast<double>(samples.size() - 1)));
  std::nth_element(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(rank),
                   samples.end());
  return samples[rank];
}

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

bool PinToOneCore() {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) return false;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &allowed)) continue;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    return sched_setaffinity(0, sizeof one, &one) == 0;
  }
  return false;
}

namespace {

// The value of "Name:" in a /proc status file, or -1.
int64_t StatusField(const std::string& path, const char* name) {
  std::ifstream in(path);
  std::string line;
  const size_t length = std::strlen(name);
  while (std::getline(in, line)) {
    if (line.compare(0, length, name) == 0) return std::stoll(line.substr(length));
  }
  return -1;
}

}  // namespace

namespace {

// Voluntary and involuntary switches of one thread, or -1.
int64_t TaskSwitches(const std::string& task) {
  const int64_t voluntary = StatusField(task + "/status", "voluntary_ctxt_switches:");
  const int64_t involuntary = StatusField(task + "/status", "nonvoluntary_ctxt_switches:");
  return voluntary >= 0 && involuntary >= 0 ? voluntary + involuntary : -1;
}

template <typename Visit>
void ForEachTask(pid_t pid, Visit visit) {
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  DIR* dir = opendir(tasks.c_str());
  if (dir == nullptr) return;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') visit(tasks + "/" + entry->d_name);
  }
  closedir(dir);
}

}  // namespace

ThreadSwitchMap ThreadSwitches(pid_t pid) {
  ThreadSwitchMap by_thread;
  ForEachTask(pid, [&](const std::string& task) {
    const int64_t voluntary = StatusField(task + "/status", "voluntary_ctxt_switches:");
    const int64_t involuntary = StatusField(task + "/status", "nonvoluntary_ctxt_switches:");
    if (voluntary < 0 || involuntary < 0) return;
    by_thread[static_cast<pid_t>(std::stol(task.substr(task.rfind('/') + 1)))] = {voluntary,
                                                                                  involuntary};
  });
  return by_thread;
}

std::string SwitchesBetween(pid_t pid, const ThreadSwitchMap& before, const ThreadSwitchMap& after,
                            double per) {
  std::string text;
  int index = 0;
  for (const auto& [tid, n] : after) {
    ++index;
    const auto it = before.find(tid);
    const auto old = it == before.end() ? std::pair<int64_t, int64_t>{0, 0} : it->second;
    const double voluntary = static_cast<double>(n.first - old.first) / per;
    const double involuntary = static_cast<double>(n.second - old.second) / per;
    if (voluntary + involuntary < 0.05) continue;
    char item[96];
    std::string name = tid == pid ? "main" : "thread " + std::to_string(index);
    std::ifstream comm("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/comm");
    std::string given;
    if (tid != pid && std::getline(comm, given) && given.find(':') != std::string::npos) {
      name += " (" + given + ")";
    }
    std::snprintf(item, sizeof item, "%s%s %.2f+%.2f", text.empty() ? "" : ", ", name.c_str(),
                  voluntary, involuntary);
    text += item;
  }
  return text.empty() ? "none" : text;
}

ProcessCounters ReadCounters(pid_t pid) {
  ProcessCounters counters;
  const std::string proc = "/proc/" + std::to_string(pid);
  {
    // Field 10 (minflt) follows the command name, which may hold blanks.
    std::ifstream in(proc + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t end = stat.rfind(')');
    if (end == std::string::npos) return counters;
    std::istringstream fields(stat.substr(end + 2));
    std::string field;
    for (int i = 3; i <= 10 && fields >> field; ++i) {
      if (i == 10) counters.minor_faults = std::stoll(field);
    }
  }
  counters.resident_kb = StatusField(proc + "/status", "VmRSS:");
  // /proc/PID/status counts the switches of the main thread only.
  int64_t sum = 0;
  ForEachTask(pid,
              [&](const std::string& task) { sum += std::max<int64_t>(TaskSwitches(task), 0); });
  counters.context_switches = sum;
  return counters;
}

bool WaitQuiet(pid_t pid, double stretch_ns) {
  const std::string self = std::to_string(gettid());
  const double deadline = NowNs() + 1e9;
  double quiet_since = -1;
  for (;;) {
    bool busy = false;
    ForEachTask(pid, [&](const std::string& task) {
      if (busy || task.compare(task.rfind('/') + 1, std::string::npos, self) == 0) return;
      std::ifstream in(task + "/stat");
      std::string stat;
      std::getline(in, stat);
      const size_t end = stat.rfind(')');
      busy = end != std::string::npos && end + 2 < stat.size() && stat[end + 2] == 'R';
    });
    const double now = NowNs();
    if (busy) {
      quiet_since = -1;
    } else {
      if (quiet_since < 0) quiet_since = now;
      if (now - quiet_since >= stretch_ns) return true;
    }
    if (now > deadline) return false;
    usleep(20);
  }
}

Options ParseOptions(int argc, char** argv, const char* selector, bool benchmark_flags) {
  static constexpr char kBenchmarkFlagPrefix[] = "--benchmark_";
  // Built only when printed: a run with good arguments never needs it.
  const auto usage = [&] {
    return std::string("usage: ") + argv[0] + " [--quick]" +
           (selector != nullptr ? std::string(" [") + selector + " N]" : "") +
           (benchmark_flags ? std::string(" [") + kBenchmarkFlagPrefix + "...]" : "");
  };
  const auto refuse = [&](const char* arg, const char* why) {
    std::fprintf(stderr, "%s: %s %s\n%s\n", argv[0], arg, why, usage().c_str());
    std::exit(64);
  };
  Options options;
  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    if (std::strcmp(arg, "--quick") == 0) {
      options.quick = true;
    } else if (std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0) {
      std::printf("%s\n", usage().c_str());
      std::exit(0);
    } else if (selector != nullptr && std::strcmp(arg, selector) == 0) {
      char end = 0;
      if (i + 1 == argc || std::sscanf(argv[++i], "%ld%c", &options.only, &end) != 1 ||
          options.only <= 0) {
        refuse(arg, "needs a number above 0");
      }
    } else if (!(benchmark_flags &&
                 std::strncmp(arg, kBenchmarkFlagPrefix, sizeof kBenchmarkFlagPrefix - 1) == 0)) {
      refuse(arg, "is not an option here");
    }
  }
  return options;
}

std::string FormatNs(double ns) {
  if (ns < 0) return "-" + FormatNs(-ns);
  char text[32];
  if (ns >= 1e7) {
    std::snprintf(text, sizeof text, "%.1f ms", ns / 1e6);
  } else if (ns >= 1e6) {
    std::snprintf(text, sizeof text, "%.2f ms", ns / 1e6);
  } else if (ns >= 1e4) {
    std::snprintf(text, sizeof text, "%.1f us", ns / 1e3);
  } else if (ns >= 1e3) {
    std::snprintf(text, sizeof text, "%.2f us", ns / 1e3);
  } else {
    std::snprintf(text, sizeof text, "%.0f ns", ns);
  }
  return text;
}

std::string FormatCount(double value, const char* unit) {
  char text[48];
  if (value >= 100 || value == std::floor(value)) {
    std::snprintf(text, sizeof text, "%.0f%s%s", value, *unit ? " " : "", unit);
  } else {
    std::snprintf(text, sizeof text, "%.2f%s%s", value, *unit ? " " : "", unit);
  }
  return text;
}

void PrintRow(const Row& row) {
  std::printf("@row\t%s\t%s\t%s\t%s\t%s\t%s\n", row.figure.c_str(), row.value.c_str(),
              row.baseline.c_str(), row.ratio.c_str(), row.goal.c_str(), row.met.c_str());
  std::fflush(stdout);
}

Row RatioRow(const std::string& figure, const std::string& value, const std::string& baseline,
             double ratio, double bound, bool at_least) {
  Row row;
  row.figure = figure;
  row.value = value;
  row.baseline = baseline;
  char text[32];
  std::snprintf(text, sizeof text, "%.2fx", ratio);
  row.ratio = text;
  std::snprintf(text, sizeof text, "%s %gx", at_least ? ">=" : "<=", bound);
  row.goal = text;
  const bool met = std::isfinite(ratio) && (at_least ? ratio >= bound : ratio <= bound);
  row.met = met ? "yes" : "NO";
  return row;
}

Row LimitRow(const std::string& figure, const std::string& value, double number, double limit) {
  Row row;
  row.figure = figure;
  row.value = value;
  row.goal = "<= " + FormatCount(limit, "");
  row.met = number <= limit ? "yes" : "NO";
  return row;
}

void PrintNotMeasured(const std::string& figure, const std::string& why) {
  Row row;
  row.figure = figure;
  row.value = "not measured";
  row.met = "NO";
  PrintRow(row);
  std::printf("@note %s: %s\n", figure.c_str(), why.c_str());
}

}  // namespace bench
