// The strerror text that the detector's system-call failures are logged with,
// through the C++ library, which reads it thread-safely (strerror_r) where
// strerror itself may share one buffer between threads.
#ifndef TESK_DEAUTH_ERRNO_TEXT_H_
#define TESK_DEAUTH_ERRNO_TEXT_H_

#include <string>
#include <system_error>

inline std::string ErrnoText(int error) {
  return std::generic_category().message(error);
}

#endif  // TESK_DEAUTH_ERRNO_TEXT_H_
