// The launcher as a user runs it: it refuses folders and paths that somebody
// else could control, gives the socket its mode from the start, hands it to
// the service under the right name and passes stop requests on.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/daemon_process.h"
#include "tests/support/temp_dir.h"

namespace tesk_test {
namespace {

constexpr int kExitUsage = 64;
constexpr int kExitFailure = 71;

// Runs hostinit with `args` before "--" and a shell command as the service,
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

// A socket that somebody still listens on, at `path`.
int Listen(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 1) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Each case prepares the folder below <root> with steps ("d PATH MODE": a
// folder; "l TARGET LINK": a symlink; "f PATH": a file; "s PATH": a socket
// somebody listens on) and names the socket folder, relative to <root>.
struct Refusal {
  const char* what;
  std::vector<std::string> steps;
  const char* dir;
  int exit_code;
  const char* message;
  const char* mode = "0660";
};

TEST(Hostinit, RefusesWhatSomebodyElseCouldControl) {
  const Refusal cases[] = {
      {"folder writable by others",
       {"d s 0777"},
       "s",
       kExitFailure,
       "s is writable by group or others (mode 0777)"},
      {"folder writable by its group",
       {"d s 0770"},
       "s",
       kExitFailure,
       "s is writable by group or others (mode 0770)"},
      {"folder above writable by others, not sticky",
       {"d open 0777", "d open/s 0700"},
       "open/s",
       kExitFailure,
       "open is writable by group or others (mode 0777)"},
      {"folder is a symlink", {"d real 0700", "l real s"}, "s", kExitFailure, "s is a symlink"},
      {"folder above is a symlink",
       {"d real 0700", "l real link"},
       "link/s",
       kExitFailure,
       "link is a symlink"},
      {"socket path is a symlink",
       {"d s 0700", "f target", "l target s/tesk"},
       "s",
       kExitFailure,
       "s/tesk: it is a symlink"},
      {"socket path is a plain file",
       {"d s 0700", "f s/tesk"},
       "s",
       kExitFailure,
       "s/tesk: it exists and is not a socket"},
      {"a running service answers on the socket",
       {"d s 0700", "s s/tesk"},
       "s",
       kExitFailure,
       "a running service answers on it"},
      {"relative folder", {}, nullptr, kExitFailure, "must be an absolute path"},
      {"mode with special bits", {}, "s", kExitUsage, "bad mode '4660'", "4660"},
  };
  for (const Refusal& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir root;
    std::vector<int> listening;
    for (const std::string& step : c.steps) {
      char kind = 0;
      char a[64] = "", b[64] = "";
      sscanf(step.c_str(), "%c %63s %63s", &kind, a, b);
      if (kind == 'd') {
        mkdir(root.Join(a).c_str(), 0700);
        chmod(root.Join(a).c_str(), static_cast<mode_t>(std::stoul(b, nullptr, 8)));
      }
      if (kind == 'l') symlink(root.Join(a).c_str(), root.Join(b).c_str());
      if (kind == 'f') close(creat(root.Join(a).c_str(), 0600));
      if (kind == 's') listening.push_back(Listen(root.Join(a)));
    }
    const ProcessResult result = RunHostinit(
        {"--socket-dir", c.dir != nullptr ? root.Join(c.dir) : "run/s", "--mode", c.mode},
        "touch " + root.Join("started"));
    for (int fd : listening) close(fd);
    EXPECT_EQ(result.exit_code, c.exit_code);
    EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
    EXPECT_NE(access(root.Join("started").c_str(), F_OK), 0) << "the service ran";
    struct stat target {};
    if (lstat(root.Join("target").c_str(), &target) == 0) {
      EXPECT_TRUE(S_ISREG(target.st_mode)) << "the symlink was followed";
    }
  }
}

// The folder another user made first (the way to take over the socket).
TEST(Hostinit, RefusesAFolderOwnedByAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to give a folder to another user";
  TempDir root;
  const std::string taken = root.Join("taken");
  ASSERT_EQ(mkdir(taken.c_str(), 0700), 0);
  ASSERT_EQ(chown(taken.c_str(), 65534, 65534), 0);
  const ProcessResult result =
      RunHostinit({"--socket-dir", taken}, "touch " + root.Join("started"));
  EXPECT_EQ(result.exit_code, kExitFailure);
  EXPECT_NE(result.err.find("taken is owned by uid 65534, not by uid 0"), std::string::npos)
      << result.err;
  EXPECT_NE(access(root.Join("started").c_str(), F_OK), 0);
  EXPECT_NE(access((taken + "/tesk").c_str(), F_OK), 0);
}

// What the service sees: its socket under ANDROID_SOCKET_<name>, already a
// socket, and the file with exactly the requested mode whatever the umask.
TEST(Hostinit, SocketHasTheRequestedModeAndReachesTheService) {
  struct Case {
    const char* mode;
    mode_t umask;
    const char* name;
    bool stale;  // a socket left by an earlier run is in the way
    const char* socket_mode;
    mode_t folder_mode;
  };
  const Case cases[] = {
      {"0660", 0022, "tesk", false, "660", 0750}, {"0600", 0000, "tesk", false, "600", 0700},
      {"0666", 0077, "tesk", true, "666", 0750},  {"0640", 0027, "other", false, "640", 0750},
      {"0602", 0777, "tesk", false, "602", 0700},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.mode) + " " + c.name);
    TempDir root;
    const std::string dir = root.Join("new/s");
    if (c.stale) {
      mkdir(root.Join("new").c_str(), 0700);
      mkdir(dir.c_str(), 0700);
      close(Listen(dir + "/" + c.name));
    }
    const std::string variable = std::string("ANDROID_SOCKET_") + c.name;
    const ProcessResult result =
        RunHostinit({"--socket-dir", dir, "--mode", c.mode, "--name", c.name},
                    "test -S /proc/self/fd/$" + variable + " && stat -c %a " + dir + "/" + c.name);
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.out, std::string(c.socket_mode) + "\n");
    if (!c.stale) {
      EXPECT_EQ(ModeOf(dir), c.folder_mode);
    }
    EXPECT_NE(access((dir + "/" + c.name).c_str(), F_OK), 0) << "socket file left behind";
  }
}

TEST(Hostinit, PassesStopRequestsOn) {
  struct Case {
    const char* what;
    const char* on_term;  // the service's trap action for SIGTERM
    const char* status;   // hostinit's exit status
  };
  const Case cases[] = {
      {"service stops on SIGTERM", "exit 3", "3"},
      {"service ignores SIGTERM: killed after the grace period", "", "137"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir root;
    const std::string service = std::string("trap '") + c.on_term + "' TERM; touch " +
                                root.Join("ready") + "; while :; do sleep 0.05; done";
    const std::string script =
        "\"$0\" --socket-dir \"$1\" --grace 1 -- /bin/sh -c \"$2\" & pid=$!\n"
        "while [ ! -e \"$1/../ready\" ]; do sleep 0.05; done\n"
        "kill -TERM $pid; wait $pid; echo $?; test -e \"$1/tesk\" && echo left behind; true";
    const ProcessResult result = RunProcess(
        {"/bin/sh", "-c", script, NativeProgram(BuiltBinary("hostinit")), root.Join("s"), service});
    EXPECT_EQ(result.out, std::string(c.status) + "\n") << result.err;
    EXPECT_NE(result.err.find("hostinit: stopping pid"), std::string::npos) << result.err;
  }
}

// Without a folder given, the launcher and the command-line client agree on
// where the socket is: a private runtime folder when the session has one.
TEST(Hostinit, TeskctlFindsTheSocketInTheDefaultFolder) {
  if (std::string(TESK_SOCKET_DIR) != "") GTEST_SKIP() << "folder fixed at configure time";
  TempDir runtime;
  const std::vector<std::string> environment = {"XDG_RUNTIME_DIR=" + runtime.path(), "TESK_SOCKET"};
  const std::string script =
      "\"$0\" -- \"$1\" 2>\"$3/log\" & pid=$!\n"
      "for i in $(seq 200); do grep -q 'Serving TESK' \"$3/log\" && break; sleep 0.05; done\n"
      "\"$2\" --timeout 10 scan >/dev/null; status=$?\n"
      "test -S \"$3/tesk/tesk\" && echo socket; kill -TERM $pid; wait $pid; echo $status";
  const ProcessResult result = RunProcess(
      {"/bin/sh", "-c", script, NativeProgram(BuiltBinary("hostinit")),
       NativeProgram(BuiltBinary("tesk")), NativeProgram(BuiltBinary("teskctl")), runtime.path()},
      environment);
  EXPECT_EQ(result.out, "socket\n0\n") << result.err;
  EXPECT_EQ(ModeOf(runtime.Join("tesk")), 0750u);
}

}  // namespace
}  // namespace tesk_test
