// hostinit: starts one service the way init starts it on a device. It
// creates the service's control socket in a folder nobody else controls,
// hands it over as an inherited descriptor named in ANDROID_SOCKET_<name>,
// runs the service in the foreground and, on SIGINT or SIGTERM, stops it
// (SIGTERM, then SIGKILL after a grace period) and removes the socket file.
#include <errno.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "control_socket.h"
#include "host/init/default_socket_dir.h"
#include "socket_folder.h"

namespace {

constexpr int kExitUsage = 64;    // EX_USAGE
constexpr int kExitFailure = 71;  // EX_OSERR

struct Options {
  std::string socket_dir = DefaultSocketDir();
  std::string name = "tesk";
  mode_t mode = 0660;
  int type = SOCK_STREAM;
  int grace_seconds = 5;
  char** program = nullptr;
};

void PrintUsage(FILE* out) {
  fprintf(out,
          "usage: hostinit [options] [--] PROGRAM [ARG...]\n"
          "Starts PROGRAM as init starts a service: with a control socket.\n"
          "  --socket-dir DIR   folder of the socket (default %s); created if missing,\n"
          "                     refused unless it is ours and nobody else can write it\n"
          "  --name NAME        socket name, also ANDROID_SOCKET_<NAME> (default tesk)\n"
          "  --mode OCTAL       mode of the socket file, at most 0777 (default 0660)\n"
          "  --type TYPE        stream or seqpacket (default stream)\n"
          "  --grace SECONDS    wait after SIGTERM before SIGKILL (default 5)\n"
          "  -h, --help         this text\n",
          DefaultSocketDir().c_str());
}

bool ParseOptions(int argc, char** argv, Options* options) {
  int i = 1;
  for (; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool has_value = i + 1 < argc;
    char* end = nullptr;
    if (arg == "--") {
      ++i;
      break;
    } else if (arg == "-h" || arg == "--help") {
      PrintUsage(stdout);
      exit(0);
    } else if (arg.rfind('-', 0) != 0) {
      break;
    } else if (!has_value) {
      fprintf(stderr, "hostinit: %s needs a value\n", arg.c_str());
      return false;
    } else if (arg == "--socket-dir") {
      options->socket_dir = argv[++i];
    } else if (arg == "--name") {
      options->name = argv[++i];
    } else if (arg == "--mode") {
      const long mode = strtol(argv[++i], &end, 8);
      if (*end != '\0' || argv[i][0] == '\0' || mode < 0 || mode > 0777) {
        fprintf(stderr, "hostinit: bad mode '%s'\n", argv[i]);
        return false;
      }
      options->mode = static_cast<mode_t>(mode);
    } else if (arg == "--type") {
      const std::string type = argv[++i];
      if (type != "stream" && type != "seqpacket") {
        fprintf(stderr, "hostinit: bad socket type '%s'\n", type.c_str());
        return false;
      }
      options->type = type == "stream" ? SOCK_STREAM : SOCK_SEQPACKET;
    } else if (arg == "--grace") {
      const long grace = strtol(argv[++i], &end, 10);
      if (*end != '\0' || grace < 0 || grace > 3600) {
        fprintf(stderr, "hostinit: bad grace period '%s'\n", argv[i]);
        return false;
      }
      options->grace_seconds = static_cast<int>(grace);
    } else {
      fprintf(stderr, "hostinit: unknown option %s\n", arg.c_str());
      return false;
    }
  }
  if (i >= argc) {
    fprintf(stderr, "hostinit: no program to start\n");
    return false;
  }
  if (options->name.empty() || options->name.find('/') != std::string::npos) {
    fprintf(stderr, "hostinit: bad socket name '%s'\n", options->name.c_str());
    return false;
  }
  options->program = argv + i;
  return true;
}

// Exit status of hostinit mirrors the service's, as a shell would report it;
// a service that ended because we asked it to counts as a clean stop.
int StatusOf(int wait_status, bool stopping) {
  if (WIFEXITED(wait_status)) return WEXITSTATUS(wait_status);
  if (stopping && WTERMSIG(wait_status) == SIGTERM) return 0;
  return 128 + WTERMSIG(wait_status);
}

// Waits for the child to end while forwarding stop requests. Signals are
// blocked and taken synchronously, so no handler races the wait.
int Supervise(pid_t child, const sigset_t& signals, int grace_seconds) {
  bool stopping = false;
  for (;;) {
    int status = 0;
    const pid_t done = waitpid(child, &status, WNOHANG);
    if (done == child) return StatusOf(status, stopping);
    if (done < 0 && errno != EINTR) return kExitFailure;

    timespec timeout{stopping ? grace_seconds : 3600, 0};
    siginfo_t info{};
    const int sig = sigtimedwait(&signals, &info, &timeout);
    if (sig == SIGINT || sig == SIGTERM || sig == SIGHUP) {
      if (!stopping) {
        fprintf(stderr, "hostinit: stopping pid %d\n", child);
        kill(child, SIGTERM);
        stopping = true;
      }
    } else if (sig < 0 && errno == EAGAIN && stopping) {
      fprintf(stderr, "hostinit: pid %d ignored SIGTERM for %d s, killing it\n", child,
              grace_seconds);
      kill(child, SIGKILL);
    }
  }
}

// A service with many clients needs a descriptor for each: the hard limit is
// what the administrator allows, the soft one only a conservative default.
void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    PrintUsage(stderr);
    return kExitUsage;
  }

  std::string error;
  // The folder gives the socket's group a way in only when the socket does.
  const mode_t folder_mode = (options.mode & 0070) != 0 ? 0750 : 0700;
  const int dir_fd = OpenSocketFolder(options.socket_dir, folder_mode, &error);
  const int fd = dir_fd < 0 ? -1
                            : CreateControlSocket(dir_fd, options.socket_dir, options.name,
                                                  options.type, options.mode, &error);
  if (fd < 0) {
    fprintf(stderr, "hostinit: %s\n", error.c_str());
    return kExitFailure;
  }
  const std::string path = options.socket_dir + "/" + options.name;
  RaiseDescriptorLimit();
  const std::string variable = "ANDROID_SOCKET_" + options.name;
  setenv(variable.c_str(), std::to_string(fd).c_str(), 1);

  sigset_t signals, previous;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);
  sigaddset(&signals, SIGCHLD);
  sigprocmask(SIG_BLOCK, &signals, &previous);

  const pid_t child = fork();
  if (child < 0) {
    fprintf(stderr, "hostinit: fork: %s\n", strerror(errno));
    RemoveControlSocket(dir_fd, options.name);
    return kExitFailure;
  }
  if (child == 0) {
    sigprocmask(SIG_SETMASK, &previous, nullptr);
    execvp(options.program[0], options.program);
    fprintf(stderr, "hostinit: cannot start %s: %s\n", options.program[0], strerror(errno));
    _exit(127);
  }

  // Like init, keep no copy of the service's socket.
  close(fd);
  fprintf(stderr, "hostinit: started %s (pid %d) with socket %s\n", options.program[0], child,
          path.c_str());
  const int status = Supervise(child, signals, options.grace_seconds);
  RemoveControlSocket(dir_fd, options.name);
  fprintf(stderr, "hostinit: %s ended, status %d\n", options.program[0], status);
  return status;
}
