// The library's own log lines: stderr, tag "tarnsocket", in the platform's
// host line format, so that the library does not depend on the daemon's
// logging.
#ifndef TARNSOCKET_LOG_H_
#define TARNSOCKET_LOG_H_

namespace tarnsocket {

void LogError(const char* format, ...) __attribute__((format(printf, 1, 2)));
void LogWarning(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tarnsocket

#endif  // TARNSOCKET_LOG_H_
