// The library's own log lines: stderr, tag "tarnsocket", in the platform's
// host line format, so that the library does not depend on the daemon's
// logging.
#ifndef TARNSOCKET_LOG_H_
#define TARNSOCKET_LOG_H_

namespace tarnsocket {

// System-call failures carry strerror's text: for the errnos a call returns it is
// a fixed string in glibc and bionic, so the calls marked NOLINT below are safe.
void LogError(const char* format, ...) __attribute__((format(printf, 1, 2)));
void LogWarning(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tarnsocket

#endif  // TARNSOCKET_LOG_H_
