#include "control_socket.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "unique_fd.h"

namespace {

std::string SystemError(const std::string& what, int error) {
  return what + ": " + strerror(error);
}

bool SomebodyAnswers(const sockaddr_un& addr, int type) {
  UniqueFd probe(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
  return probe.get() >= 0 &&
         connect(probe.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
}

// Clears the way for bind: nothing there, or a stale socket now removed.
bool ClearStale(int dir_fd, const std::string& name, const std::string& path,
                const sockaddr_un& addr, int type, std::string* error) {
  struct stat st {};
  if (fstatat(dir_fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return true;
    *error = SystemError("cannot examine " + path, errno);
    return false;
  }
  if (S_ISLNK(st.st_mode)) {
    *error = "refusing socket path " + path + ": it is a symlink";
  } else if (!S_ISSOCK(st.st_mode)) {
    *error = "refusing socket path " + path + ": it exists and is not a socket";
  } else if (SomebodyAnswers(addr, type)) {
    *error = "refusing socket path " + path + ": a running service answers on it";
  } else if (unlinkat(dir_fd, name.c_str(), 0) != 0 && errno != ENOENT) {
    *error = SystemError("cannot remove stale " + path, errno);
  } else {
    return true;
  }
  return false;
}

}  // namespace

int CreateControlSocket(int dir_fd, const std::string& dir, const std::string& name, int type,
                        mode_t mode, std::string* error) {
  const std::string path = dir + "/" + name;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    *error = "socket path too long: " + path;
    return -1;
  }
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  if (!ClearStale(dir_fd, name, path, addr, type, error)) return -1;

  UniqueFd fd(socket(AF_UNIX, type, 0));
  if (fd.get() < 0) {
    *error = SystemError("socket", errno);
    return -1;
  }
  // bind creates the file with 0777 less the umask: with this umask the file
  // has its final mode from its first moment, so no chmod window exists.
  const mode_t saved = umask(~mode & 0777);
  const int bound = bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
  const int bind_errno = errno;
  umask(saved);
  if (bound != 0) {
    *error = SystemError("bind " + path, bind_errno);
    return -1;
  }
  struct stat st {};
  if (fstatat(dir_fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISSOCK(st.st_mode) ||
      (st.st_mode & 07777) != (mode & 07777)) {
    char wanted[8];
    snprintf(wanted, sizeof wanted, "%04o", static_cast<unsigned>(mode));
    *error = "socket " + path + " did not get mode " + wanted;
    RemoveControlSocket(dir_fd, name);
    return -1;
  }
  return fd.Release();
}

void RemoveControlSocket(int dir_fd, const std::string& name) {
  struct stat st {};
  if (fstatat(dir_fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISSOCK(st.st_mode)) {
    unlinkat(dir_fd, name.c_str(), 0);
  }
}
