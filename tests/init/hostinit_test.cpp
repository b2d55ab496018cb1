// The launcher as a user runs it: it refuses folders and paths that somebody
// else could control, gives the socket its mode from the start, hands it to
// the service under the right name and passes stop requests on.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/support/daemon_process.h"
#include "tests/support/temp_dir.h"

namespace tesk_test {
namespace {

// Runs hostinit with args before "--" and a shell command as the service,
// under the given umask.
ProcessResult RunHostinit(std::vector<std::string> args, const std::string& service,
                          mode_t mask = 022, const std::vector<std::string>& environment = {}) {
  args.insert(args.begin(), BuiltBinary("hostinit"));
  args.insert(args.end(), {"--", "/bin/sh", "-c", service});
  const mode_t saved = umask(mask);
  ProcessResult result = RunProcess(args, environment);
  umask(saved);
  return result;
}

mode_t ModeOf(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

// A socket that somebody still listens on, at path.
int Listen(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{AF_UNIX, {}};
  path.copy(addr.sun_path, sizeof addr.sun_path - 1);
  return bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 && listen(fd, 1) == 0 ? fd
                                                                                              : -1;
}

// Each case prepares <root> with steps, then names the socket folder below it
// (null: a relative folder). Steps: "d PATH MODE" a folder, "l TARGET LINK" a
// symlink, "f PATH" a file, "s PATH" a socket somebody listens on, "o PATH"
// owned by another user (the way to take the socket over; needs root).
TEST(Hostinit, RefusesWhatSomebodyElseCouldControl) {
  const struct {
    std::vector<std::string> steps;
    const char* dir;
    const char* message;
  } cases[] = {
      {{"d s 0777"}, "s", "s is writable by group or others (mode 0777)"},
      {{"d s 0770"}, "s", "s is writable by group or others (mode 0770)"},
      {{"d open 0777", "d open/s 0700"}, "open/s", "open is writable by group or others"},
      {{"d real 0700", "l real s"}, "s", "s is a symlink"},
      {{"d real 0700", "l real link"}, "link/s", "link is a symlink"},
      {{"d s 0700", "f target", "l target s/tesk"}, "s", "s/tesk: it is a symlink"},
      {{"d s 0700", "f s/tesk"}, "s", "s/tesk: it exists and is not a socket"},
      {{"d s 0700", "s s/tesk"}, "s", "a running service answers on it"},
      {{}, nullptr, "must be an absolute path"},
      {{"d taken 0700", "o taken"}, "taken", "taken is owned by uid 65534, not by uid 0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    TempDir root;
    std::vector<int> listening;
    bool needs_root = false;
    for (const std::string& step : c.steps) {
      std::istringstream words(step);
      std::string kind, a, b;
      words >> kind >> a >> b;
      const std::string path = root.Join(a);
      if (kind == "d") {
        mkdir(path.c_str(), 0700);
        chmod(path.c_str(), static_cast<mode_t>(std::stoul(b, nullptr, 8)));
      }
      if (kind == "l") symlink(path.c_str(), root.Join(b).c_str());
      if (kind == "f") close(creat(path.c_str(), 0600));
      if (kind == "s") listening.push_back(Listen(path));
      if (kind == "o") needs_root = geteuid() != 0 || chown(path.c_str(), 65534, 65534) != 0;
    }
    if (needs_root) continue;
    const ProcessResult result =
        RunHostinit({"--socket-dir", c.dir != nullptr ? root.Join(c.dir) : "run/s"},
                    "touch " + root.Join("ran"));
    for (int fd : listening) close(fd);
    EXPECT_EQ(result.exit_code, 71);
    EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
    EXPECT_NE(access(root.Join("ran").c_str(), F_OK), 0) << "the service ran";
    struct stat target {};
    if (lstat(root.Join("target").c_str(), &target) == 0) {
      EXPECT_TRUE(S_ISREG(target.st_mode)) << "the symlink was followed";
    }
  }
  const ProcessResult special_bits = RunHostinit({"--mode", "4660"}, "true");
  EXPECT_EQ(special_bits.exit_code, 64);
  EXPECT_NE(special_bits.err.find("bad mode '4660'"), std::string::npos) << special_bits.err;
}

// What the service sees: its socket under ANDROID_SOCKET_<name>, already a
// socket, and the file with exactly the requested mode whatever the umask.
// Without a folder given, the socket goes into the session's runtime folder
// (teskctl computes the same default).
TEST(Hostinit, SocketHasTheRequestedModeAndReachesTheService) {
  const struct {
    const char* mode;
    mode_t umask;
    const char* name;
    bool stale;  // a socket left by an earlier run is in the way
    mode_t folder_mode;
  } cases[] = {
      {"660", 0022, "tesk", false, 0750}, {"600", 0000, "tesk", false, 0700},
      {"666", 0077, "tesk", true, 0750},  {"640", 0027, "other", false, 0750},
      {"602", 0777, "tesk", false, 0700},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.mode) + " " + c.name);
    TempDir root;
    const std::string dir = root.Join("new/tesk"), path = dir + "/" + c.name;
    std::vector<std::string> args = {"--mode", std::string("0") + c.mode, "--name", c.name};
    if (std::string(TESK_SOCKET_DIR) != "") args.insert(args.end(), {"--socket-dir", dir});
    if (c.stale) {
      mkdir(root.Join("new").c_str(), 0700);
      mkdir(dir.c_str(), 0700);
      close(Listen(path));
    }
    const ProcessResult result = RunHostinit(
        args,
        "test -S /proc/self/fd/$ANDROID_SOCKET_" + std::string(c.name) + " && stat -c %a " + path,
        c.umask, {"XDG_RUNTIME_DIR=" + root.Join("new")});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.out, std::string(c.mode) + "\n");
    if (!c.stale) {
      EXPECT_EQ(ModeOf(dir), c.folder_mode);
    }
    EXPECT_NE(access(path.c_str(), F_OK), 0) << "socket file left behind";
  }
}

// A stop request reaches the service as SIGTERM, and SIGKILL follows when it
// is ignored for the grace period; a service that ends on that SIGTERM ends
// cleanly. Otherwise the service's own status comes back.
TEST(Hostinit, PassesStopRequestsOn) {
  const std::pair<const char*, int> cases[] = {
      {"trap '' TERM; kill -TERM $PPID; while :; do sleep 0.05; done", 137},
      {"kill -TERM $PPID; exec sleep 10", 0},
      {"exit 3", 3},
  };
  for (const auto& [service, status] : cases) {
    TempDir root;
    const ProcessResult result =
        RunHostinit({"--socket-dir", root.Join("s"), "--grace", "1"}, service);
    EXPECT_EQ(result.exit_code, status) << service << "\n" << result.err;
    EXPECT_EQ(result.err.find("hostinit: stopping pid") != std::string::npos, status != 3)
        << service;
  }
}

}  // namespace
}  // namespace tesk_test
