#include "log.h"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace tarnsocket {
namespace {

__attribute__((format(printf, 2, 0))) void Write(char letter, const char* format, va_list args) {
  char text[512];
  const int n = vsnprintf(text, sizeof text, format, args);
  if (n < 0) return;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char line[640];
  const int head = snprintf(
      line, sizeof line, "%02d-%02d %02d:%02d:%02d.%03ld %5d %5ld %c %s: ", local.tm_mon + 1,
      local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, now.tv_nsec / 1000000, getpid(),
      static_cast<long>(syscall(SYS_gettid)), letter, "tarnsocket");
  if (head < 0) return;
  size_t used = std::min(static_cast<size_t>(head), sizeof line - 2);
  const size_t body =
      std::min(std::min(static_cast<size_t>(n), sizeof text - 1), sizeof line - 2 - used);
  std::copy(text, text + body, line + used);
  used += body;
  line[used++] = '\n';
  // One write per line keeps lines from different threads whole.
  ssize_t ignored = write(STDERR_FILENO, line, used);
  (void)ignored;
}

}  // namespace

void LogError(const char* format, ...) {
  va_list args;
  va_start(args, format);
  Write('E', format, args);
  va_end(args);
}

void LogWarning(const char* format, ...) {
  va_list args;
  va_start(args, format);
  Write('W', format, args);
  va_end(args);
}

}  // namespace tarnsocket
