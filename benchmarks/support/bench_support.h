// What every benchmark program shares: clocks and medians, whole reads and
// writes, pinning, counters read from /proc, and the rows that
// scripts/bench.sh collects into its table.
#ifndef TESK_BENCHMARKS_SUPPORT_BENCH_SUPPORT_H_
#define TESK_BENCHMARKS_SUPPORT_BENCH_SUPPORT_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace bench {

double NowNs();
// Of a copy: callers keep their samples in order.
double Median(std::vector<double> samples);
double Percentile(std::vector<double> samples, double fraction);

bool ReadFull(int fd, void* data, size_t size);
bool WriteFull(int fd, const void* data, size_t size);

// Pins the calling thread (and what it forks or spawns from now on) to the
// first core it may run on; false when that is not allowed.
bool PinToOneCore();

// Figures of another process (or this one) read from /proc; -1 when gone.
struct ProcessCounters {
  int64_t minor_faults = -1;      // all threads, from /proc/PID/stat
  int64_t context_switches = -1;  // voluntary + involuntary, summed over live threads
  int64_t resident_kb = -1;
};
ProcessCounters ReadCounters(pid_t pid);
// Context switches of each live thread of a process, by thread id:
// {voluntary, involuntary}.
using ThreadSwitchMap = std::map<pid_t, std::pair<int64_t, int64_t>>;
ThreadSwitchMap ThreadSwitches(pid_t pid);
// The differences between two such maps per `per`, thread by thread in the
// order they were started ("main 2+0.1, 2nd 3+0, ..."; voluntary +
// involuntary); threads that did not switch are left out.
std::string SwitchesBetween(pid_t pid, const ThreadSwitchMap& before, const ThreadSwitchMap& after,
                            double per);

// Waits (up to a second) until no thread of `pid` but the caller has been
// running or ready to run for `stretch_ns` (at one look if 0), so that what
// one measurement left behind does not land in the next; false when that
// never happened.
bool WaitQuiet(pid_t pid, double stretch_ns = 0);

// The command line of a program: --quick runs each measurement just long
// enough to show that it works; `selector` (say "--aps"), when the program
// has one, takes a number and limits the run to that one case (to profile
// it, say). --help prints the usage and exits 0; any other argument is
// refused with exit 64, except Google Benchmark's own flags where the
// program hands them on (`benchmark_flags`).
struct Options {
  bool quick = false;
  long only = 0;  // the selector's number, 0 when not given
};
Options ParseOptions(int argc, char** argv, const char* selector = nullptr,
                     bool benchmark_flags = false);

// Human figures: "12.3 us", "4.56 ms", "987 ns".
std::string FormatNs(double ns);
std::string FormatCount(double value, const char* unit);

// One line of the suite's table. The program prints it as a tab-separated
// line starting with "@row"; scripts/bench.sh lines them up.
struct Row {
  std::string figure;
  std::string value;
  std::string baseline = "-";
  std::string ratio = "-";
  std::string goal = "-";
  std::string met = "-";  // "yes", "NO" or "-" when there is no goal
};
void PrintRow(const Row& row);

// value / baseline compared with an upper bound ("<= 1.3x") or, with
// at_least, a lower one (">= 0.9x").
Row RatioRow(const std::string& figure, const std::string& value, const std::string& baseline,
             double ratio, double bound, bool at_least = false);
// A figure against an absolute bound ("<= 50").
Row LimitRow(const std::string& figure, const std::string& value, double number, double limit);
// A figure the program could not measure: a row that misses its goal, and a
// note that says why.
void PrintNotMeasured(const std::string& figure, const std::string& why);

}  // namespace bench

#endif  // TESK_BENCHMARKS_SUPPORT_BENCH_SUPPORT_H_
