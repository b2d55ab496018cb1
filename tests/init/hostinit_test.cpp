// The launcher as a user runs it: it refuses folders and paths that somebody
// else could control, gives the socket its mode from the start, hands it to
// the service under the right name and passes stop requests on.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
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

struct Refusal {
  const char* what;
  // Prepares <root>; returns the arguments before "--".
  std::function<std::vector<std::string>(const TempDir& root)> prepare;
  int exit_code;
  const char* message;
};

TEST(Hostinit, RefusesWhatSomebodyElseCouldControl) {
  const std::vector<Refusal> cases = {
      {"folder writable by others",
       [](const TempDir& root) {
         mkdir(root.Join("s").c_str(), 0777);
         chmod(root.Join("s").c_str(), 0777);
         return std::vector<std::string>{"--socket-dir", root.Join("s")};
       },
       kExitFailure, "s is writable by group or others (mode 0777)"},
      {"folder writable by its group",
       [](const TempDir& root) {
         mkdir(root.Join("s").c_str(), 0770);
         chmod(root.Join("s").c_str(), 0770);
         return std::vector<std::string>{"--socket-dir", root.Join("s")};
       },
       kExitFailure, "s is writable by group or others (mode 0770)"},
      {"folder above writable by others, not sticky",
       [](const TempDir& root) {
         mkdir(root.Join("open").c_str(), 0777);
         chmod(root.Join("open").c_str(), 0777);
         mkdir(root.Join("open/s").c_str(), 0700);
         return std::vector<std::string>{"--socket-dir", root.Join("open/s")};
       },
       kExitFailure, "open is writable by group or others (mode 0777)"},
      {"folder is a symlink",
       [](const TempDir& root) {
         mkdir(root.Join("real").c_str(), 0700);
         symlink(root.Join("real").c_str(), root.Join("s").c_str());
         return std::vector<std::string>{"--socket-dir", root.Join("s")};
       },
       kExitFailure, "s is a symlink"},
      {"folder above is a symlink",
       [](const TempDir& root) {
         mkdir(root.Join("real").c_str(), 0700);
         symlink(root.Join("real").c_str(), root.Join("link").c_str());
         return std::vector<std::string>{"--socket-dir", root.Join("link/s")};
       },
       kExitFailure, "link is a symlink"},
      {"socket path is a symlink",
       [](const TempDir& root) {
         mkdir(root.Join("s").c_str(), 0700);
         close(creat(root.Join("target").c_str(), 0600));
         symlink(root.Join("target").c_str(), root.Join("s/tesk").c_str());
         return std::vector<std::string>{"--socket-dir", root.Join("s")};
       },
       kExitFailure, "s/tesk: it is a symlink"},
      {"socket path is a plain file",
       [](const TempDir& root) {
         mkdir(root.Join("s").c_str(), 0700);
         close(creat(root.Join("s/tesk").c_str(), 0600));
         return std::vector<std::string>{"--socket-dir", root.Join("s")};
       },
       kExitFailure, "s/tesk: it exists and is not a socket"},
      {"relative folder",
       [](const TempDir&) {
         return std::vector<std::string>{"--socket-dir", "run/s"};
       },
       kExitFailure, "must be an absolute path"},
      {"mode with special bits",
       [](const TempDir& root) {
         return std::vector<std::string>{"--socket-dir", root.Join("s"), "--mode", "4660"};
       },
       kExitUsage, "bad mode '4660'"},
  };
  for (const Refusal& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir root;
    const ProcessResult result = RunHostinit(c.prepare(root), "touch " + root.Join("started"));
    EXPECT_EQ(result.exit_code, c.exit_code);
    EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
    EXPECT_NE(access(root.Join("started").c_str(), F_OK), 0) << "the service ran";
    struct stat target {};
    if (lstat(root.Join("target").c_str(), &target) == 0) {
      EXPECT_TRUE(S_ISREG(target.st_mode)) << "the symlink was followed";
    }
  }
}

TEST(Hostinit, RefusesASocketARunningServiceAnswersOn) {
  TempDir root;
  mkdir(root.Join("s").c_str(), 0700);
  const int listening = Listen(root.Join("s/tesk"));
  ASSERT_GE(listening, 0);
  const ProcessResult result =
      RunHostinit({"--socket-dir", root.Join("s")}, "touch " + root.Join("started"));
  close(listening);
  EXPECT_EQ(result.exit_code, kExitFailure);
  EXPECT_NE(result.err.find("a running service answers on it"), std::string::npos) << result.err;
  EXPECT_NE(access(root.Join("started").c_str(), F_OK), 0);
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
    const ProcessResult result =
        RunProcess({"/bin/sh", "-c", script, BuiltBinary("hostinit"), root.Join("s"), service});
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
  const ProcessResult result =
      RunProcess({"/bin/sh", "-c", script, BuiltBinary("hostinit"), BuiltBinary("tesk"),
                  BuiltBinary("teskctl"), runtime.path()},
                 environment);
  EXPECT_EQ(result.out, "socket\n0\n") << result.err;
  EXPECT_EQ(ModeOf(runtime.Join("tesk")), 0750u);
}

}  // namespace
}  // namespace tesk_test
