#include "socket_folder.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <sstream>

#include "unique_fd.h"

namespace {

std::string Octal(mode_t mode) {
  char text[8];
  snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

std::string SystemError(const std::string& what, int error) {
  return what + ": " + strerror(error);
}

// Why a folder on the way (`final` false) or the socket's own folder
// (`final` true) cannot be trusted, or empty if it can.
std::string Distrust(const struct stat& st, bool final) {
  const uid_t me = geteuid();
  if (!S_ISDIR(st.st_mode)) return "not a folder";
  if (final ? st.st_uid != me : st.st_uid != me && st.st_uid != 0) {
    return "owned by uid " + std::to_string(st.st_uid) + ", not by uid " + std::to_string(me) +
           (final || me == 0 ? "" : " or root");
  }
  const bool others_write = (st.st_mode & (S_IWGRP | S_IWOTH)) != 0;
  // A sticky folder lets others add entries but not rename or remove ours.
  if (others_write && (final || (st.st_mode & S_ISVTX) == 0)) {
    return "writable by group or others (mode " + Octal(st.st_mode) + ")";
  }
  return "";
}

// Opens `name` inside `parent` as a folder, never through a symlink;
// creates it first when missing.
int OpenOrCreate(int parent, const std::string& name, const std::string& path, mode_t create_mode,
                 const std::string& refusal, std::string* error) {
  constexpr int kFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  for (int attempt = 0; attempt < 2; ++attempt) {
    const int fd = openat(parent, name.c_str(), kFlags);
    if (fd >= 0) return fd;
    if (errno == ENOTDIR || errno == ELOOP) {
      struct stat st {};
      const bool link =
          fstatat(parent, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
      *error = refusal + path + (link ? " is a symlink" : " is not a folder");
      return -1;
    }
    if (errno != ENOENT) break;
    const mode_t saved = umask(0);
    const int made = mkdirat(parent, name.c_str(), create_mode);
    const int made_errno = errno;
    umask(saved);
    if (made != 0 && made_errno != EEXIST) {
      *error = SystemError("cannot create " + path, made_errno);
      return -1;
    }
  }
  *error = SystemError("cannot open " + path, errno);
  return -1;
}

}  // namespace

int OpenSocketFolder(const std::string& dir, mode_t create_mode, std::string* error) {
  if (dir.empty() || dir[0] != '/') {
    *error = "socket folder must be an absolute path: '" + dir + "'";
    return -1;
  }
  UniqueFd current(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (current.get() < 0) {
    *error = SystemError("cannot open /", errno);
    return -1;
  }
  const std::string refusal = "refusing socket folder " + dir + ": ";
  std::string path;
  std::istringstream components(dir);
  for (;;) {
    std::string next;
    while (std::getline(components, next, '/') && (next.empty() || next == ".")) {
    }
    const bool last = components.fail();
    struct stat st {};
    if (fstat(current.get(), &st) != 0) {
      *error = SystemError("cannot examine " + (path.empty() ? "/" : path), errno);
      return -1;
    }
    const std::string why = Distrust(st, last);
    if (!why.empty()) {
      *error = refusal;
      *error += path.empty() ? "/" : path;
      *error += " is " + why;
      return -1;
    }
    if (last) return current.Release();
    if (next == "..") {
      *error = "socket folder must not contain '..': " + dir;
      return -1;
    }
    path += "/" + next;
    const int child = OpenOrCreate(current.get(), next, path, create_mode, refusal, error);
    if (child < 0) return -1;
    current.Reset(child);
  }
}
