#include "control_socket.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace {

// mkdir -p, leaving existing folders as they are.
bool MakeDirectories(const std::string& dir) {
  for (size_t slash = 1; slash != std::string::npos; slash = dir.find('/', slash + 1)) {
    const std::string prefix = dir.substr(0, slash);
    if (mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  return mkdir(dir.c_str(), 0755) == 0 || errno == EEXIST;
}

}  // namespace

int CreateControlSocket(const std::string& dir, const std::string& name, int type, mode_t mode,
                        std::string* error) {
  const std::string path = dir + "/" + name;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    errno = ENAMETOOLONG;
    *error = "socket path too long: " + path;
    return -1;
  }
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);

  if (!MakeDirectories(dir)) {
    *error = "cannot create " + dir;
    return -1;
  }
  const int fd = socket(AF_UNIX, type, 0);
  if (fd < 0) {
    *error = "socket";
    return -1;
  }
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    *error = "cannot remove stale " + path;
  } else if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    *error = "bind " + path;
  } else if (chmod(path.c_str(), mode) != 0) {
    *error = "chmod " + path;
  } else {
    return fd;
  }
  const int saved = errno;
  close(fd);
  errno = saved;
  return -1;
}
