#include "cutils/sockets.h"

#include <errno.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

int android_get_control_socket(const char* name) {
  if (name == nullptr) return -1;
  const std::string key = std::string(ANDROID_SOCKET_ENV_PREFIX) + name;
  // Read at start-up, and nothing in the daemon sets the environment.
  const char* value = getenv(key.c_str());  // NOLINT(concurrency-mt-unsafe)
  if (value == nullptr || *value == '\0') return -1;

  errno = 0;
  char* end = nullptr;
  const long fd = strtol(value, &end, 10);
  if (errno != 0 || *end != '\0' || fd < 0 || fd > 0x7fffffff) return -1;

  // The number must name a socket that is open in this process: a stale
  // variable inherited across an exec must not hand out a random descriptor.
  struct stat st {};
  if (fstat(static_cast<int>(fd), &st) != 0 || !S_ISSOCK(st.st_mode)) return -1;
  return static_cast<int>(fd);
}
