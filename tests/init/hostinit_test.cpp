// The launcher as a user runs it: it refuses folders and paths that somebody
// else could control, gives the socket its mode from the start, hands it to
// the service under the right name and passes stop requests on.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

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

// A socket that somebody still listens on, at path.
int Listen(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{AF_UNIX, {}};
  path.copy(addr.sun_path, sizeof addr.sun_path - 1);
  return bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 && listen(fd, 1) == 0 ? fd
                                                                                              : -1;
}

// Each case prepares <root> with a shell command and names the socket folder
// below it (null: a relative folder); live: somebody listens on s/tesk.
TEST(Hostinit, RefusesWhatSomebodyElseCouldControl) {
  const struct {
    const char* setup;
    const char* dir;
    const char* message;
    bool live = false;
  } cases[] = {
      {"mkdir -m 0777 s", "s", "s is writable by group or others (mode 0777)"},
      {"mkdir -m 0770 s", "s", "s is writable by group or others (mode 0770)"},
      {"mkdir -m 0777 open && mkdir open/s", "open/s", "open is writable by group or others"},
      {"mkdir real && ln -s real s", "s", "s is a symlink"},
      {"mkdir real && ln -s real link", "link/s", "link is a symlink"},
      {"mkdir s && touch target && ln -s ../target s/tesk", "s", "s/tesk: it is a symlink"},
      {"mkdir s && touch s/tesk", "s", "s/tesk: it exists and is not a socket"},
      {"mkdir s", "s", "a running service answers on it", true},
      {"true", nullptr, "must be an absolute path"},
      // Another user's folder: the way to take the socket over (needs root).
      {"mkdir taken && chown 65534 taken", "taken", "taken is owned by uid 65534, not by uid 0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    if (geteuid() != 0 && std::string(c.setup).find("chown") != std::string::npos) continue;
    TempDir root;
    ASSERT_EQ(RunProcess({"/bin/sh", "-c", "cd " + root.path() + " && " + c.setup}).exit_code, 0);
    const int live = c.live ? Listen(root.Join("s/tesk")) : -1;
    const ProcessResult result =
        RunHostinit({"--socket-dir", c.dir != nullptr ? root.Join(c.dir) : "run/s"},
                    "touch " + root.Join("ran"));
    close(live);
    EXPECT_EQ(result.exit_code, 71);
    EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
    EXPECT_NE(access(root.Join("ran").c_str(), F_OK), 0) << "the service ran";
    struct stat target {};
    const bool none = lstat(root.Join("target").c_str(), &target) != 0;
    EXPECT_TRUE(none || S_ISREG(target.st_mode)) << "the symlink was followed";
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
    bool stale;  // a socket left by an earlier run is in the way (its folder: 0700)
    const char* folder_mode;
  } cases[] = {
      {"660", 0022, "tesk", false, "750"}, {"600", 0000, "tesk", false, "700"},
      {"666", 0077, "tesk", true, "700"},  {"640", 0027, "other", false, "750"},
      {"602", 0777, "tesk", false, "700"},
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
    const ProcessResult result =
        RunHostinit(args,
                    "test -S /proc/self/fd/$ANDROID_SOCKET_" + std::string(c.name) +
                        " && stat -c %a " + dir + " " + path,
                    c.umask, {"XDG_RUNTIME_DIR=" + root.Join("new")});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.out, std::string(c.folder_mode) + "\n" + c.mode + "\n");
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
