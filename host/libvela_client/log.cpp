// Host backend of the location framework's logging functions.
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>

#include "ky_loc_fw/log.h"
#include "ky_loc_fw/log_capture.h"

namespace ky_loc_fw {
namespace {

constexpr int kDefaultLevel = 1;

struct Severity {
  int level;  // lowest tag level that shows it
  char letter;
};
constexpr Severity kError{0, 'E'};
constexpr Severity kWarning{1, 'W'};
constexpr Severity kInfo{1, 'I'};
constexpr Severity kDebug{2, 'D'};

class Logger {
 public:
  static Logger& Get() {
    static Logger* logger = new Logger();  // never destroyed: logging works during exit
    return *logger;
  }

  void SetLevel(const char* tag, int level) {
    std::lock_guard<std::mutex> lock(mutex_);
    levels_[tag] = level;
  }

  void SetSink(LogSink sink, void* context, bool quiet) {
    std::lock_guard<std::mutex> lock(mutex_);
    sink_ = sink;
    sink_context_ = context;
    quiet_ = sink != nullptr && quiet;
  }

  __attribute__((format(printf, 4, 0))) void Write(const Severity& severity, const char* tag,
                                                   const char* format, va_list args) {
    LogSink sink;
    void* sink_context;
    bool quiet;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (severity.level > LevelLocked(tag)) return;
      sink = sink_;
      sink_context = sink_context_;
      quiet = quiet_;
    }

    char text[1024];
    const int n = vsnprintf(text, sizeof text, format, args);
    if (n < 0) return;
    if (sink != nullptr) sink(sink_context, severity.letter, tag, text);
    if (quiet) return;

    size_t len = strnlen(text, sizeof text);
    if (len > 0 && text[len - 1] == '\n') --len;  // one call, one line

    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char line[1200];
    int head = snprintf(
        line, sizeof line, "%02d-%02d %02d:%02d:%02d.%03ld %5d %5ld %c %s: ", local.tm_mon + 1,
        local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, now.tv_nsec / 1000000, getpid(),
        static_cast<long>(syscall(SYS_gettid)), severity.letter, tag);
    if (head < 0) return;
    size_t used = std::min(static_cast<size_t>(head), sizeof line - 2);
    const size_t body = std::min(len, sizeof line - 2 - used);
    memcpy(line + used, text, body);
    used += body;
    line[used++] = '\n';
    // One write per line keeps lines from different threads whole.
    ssize_t ignored = write(STDERR_FILENO, line, used);
    (void)ignored;
  }

 private:
  // Nothing in a process that logs through here sets the environment.
  Logger() { ParseEnvironment(getenv("KY_LOG_LEVEL")); }  // NOLINT(concurrency-mt-unsafe)

  int LevelLocked(const char* tag) const {
    auto forced = env_levels_.find(tag);
    if (forced != env_levels_.end()) return forced->second;
    if (env_all_ >= 0) return env_all_;
    auto set = levels_.find(tag);
    return set != levels_.end() ? set->second : kDefaultLevel;
  }

  // "2", "tesk=2,vector=0" or a mix; malformed items are skipped.
  void ParseEnvironment(const char* text) {
    if (text == nullptr) return;
    std::string all(text);
    size_t start = 0;
    while (start <= all.size()) {
      size_t end = all.find(',', start);
      if (end == std::string::npos) end = all.size();
      std::string item = all.substr(start, end - start);
      size_t eq = item.find('=');
      std::string value = eq == std::string::npos ? item : item.substr(eq + 1);
      char* rest = nullptr;
      long level = strtol(value.c_str(), &rest, 10);
      if (!value.empty() && rest != nullptr && *rest == '\0') {
        if (eq == std::string::npos) {
          env_all_ = static_cast<int>(level);
        } else {
          env_levels_[item.substr(0, eq)] = static_cast<int>(level);
        }
      }
      start = end + 1;
    }
  }

  std::mutex mutex_;
  std::unordered_map<std::string, int> levels_;
  std::unordered_map<std::string, int> env_levels_;
  int env_all_ = -1;
  LogSink sink_ = nullptr;
  void* sink_context_ = nullptr;
  bool quiet_ = false;
};

}  // namespace

#define TESK_DEFINE_LOG_FUNCTION(name, severity)        \
  void name(const char* tag, const char* format, ...) { \
    va_list args;                                       \
    va_start(args, format);                             \
    Logger::Get().Write(severity, tag, format, args);   \
    va_end(args);                                       \
  }

TESK_DEFINE_LOG_FUNCTION(log_error, kError)
TESK_DEFINE_LOG_FUNCTION(log_warning, kWarning)
TESK_DEFINE_LOG_FUNCTION(log_info, kInfo)
TESK_DEFINE_LOG_FUNCTION(log_debug, kDebug)

void log_set_local_level_for_tag(const char* tag, int level) {
  Logger::Get().SetLevel(tag, level);
}

void log_set_sink(LogSink sink, void* context, bool quiet) {
  Logger::Get().SetSink(sink, context, quiet);
}

}  // namespace ky_loc_fw
