#include "host/init/default_socket_dir.h"

#include <unistd.h>

#include <cstdlib>

std::string DefaultSocketDir() {
  std::string configured = TESK_SOCKET_DIR;
  if (!configured.empty()) return configured;
  // The runtime folder is private to its user by definition: nobody else can
  // create or swap anything in it.
  const char* runtime = getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && runtime[0] == '/') return std::string(runtime) + "/tesk";
  return "/tmp/tesk-" + std::to_string(geteuid());
}
