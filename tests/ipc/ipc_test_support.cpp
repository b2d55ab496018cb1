#include "ipc_test_support.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "gtest/gtest.h"
#include "tarnsocket/tarn_ipc.h"

extern char** environ;

namespace ipc_test {
namespace {

sockaddr_un Address(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

std::string PeerBinary() {
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return "ipc_test_peer";
  std::string path(self, static_cast<size_t>(n));
  return path.substr(0, path.rfind('/') + 1) + "ipc_test_peer";
}

}  // namespace

ServedHarness::ServedHarness() {
  char dir[] = "/tmp/ipc_test_XXXXXX";
  if (mkdtemp(dir) == nullptr) ADD_FAILURE() << "mkdtemp";
  dir_ = dir;
  path_ = dir_ + "/socket";
  fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = Address(path_);
  EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  service_ = TarnIPC_startServiceOnSocket(fd_, harness_.Root().invoke, &harness_);
  EXPECT_NE(service_, nullptr);
}

ServedHarness::~ServedHarness() {
  if (service_ != nullptr) {
    TarnIPC_stopService(service_);
    TarnIPC_join(service_);
  }
  Object stored = harness_.Stored();
  if (!IsNullObject(stored)) ObjectRelease(stored);
  close(fd_);
  unlink(path_.c_str());
  rmdir(dir_.c_str());
}

Object ServedHarness::Connect() {
  Object root{nullptr, nullptr};
  EXPECT_EQ(TarnIPC_connect(path_.c_str(), &root), 0);
  return root;
}

int ServedHarness::RawConnect() {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = Address(path_);
  EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  return fd;
}

PeerProcess::PeerProcess(const char* mode, const std::string& socket_path) {
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe";
    return;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], STDOUT_FILENO);
  const std::string binary = PeerBinary();
  std::string mode_arg = mode;
  std::string path_arg = socket_path;
  char* argv[] = {const_cast<char*>(binary.c_str()), mode_arg.data(), path_arg.data(), nullptr};
  const int rc = posix_spawn(&pid_, binary.c_str(), &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipe_fds[1]);
  out_ = pipe_fds[0];
  if (rc != 0) {
    ADD_FAILURE() << "spawn " << binary << ": " << rc;
    pid_ = -1;
  }
}

PeerProcess::~PeerProcess() {
  if (pid_ > 0 && !reaped_) {
    kill(pid_, SIGKILL);
    Wait();
  }
  if (out_ >= 0) close(out_);
}

std::string PeerProcess::ReadLine() {
  std::string line;
  char c;
  while (read(out_, &c, 1) == 1) {
    if (c == '\n') return line;
    line += c;
  }
  return line;
}

void PeerProcess::Kill() {
  kill(pid_, SIGKILL);
}

int PeerProcess::Wait() {
  if (!reaped_ && pid_ > 0) {
    waitpid(pid_, &status_, 0);
    reaped_ = true;
  }
  if (WIFEXITED(status_)) return WEXITSTATUS(status_);
  return 128 + WTERMSIG(status_);
}

StderrCapture::StderrCapture() {
  char name[] = "/tmp/ipc_stderr_XXXXXX";
  const int fd = mkstemp(name);
  file_ = name;
  saved_ = dup(STDERR_FILENO);
  dup2(fd, STDERR_FILENO);
  close(fd);
}

StderrCapture::~StderrCapture() {
  dup2(saved_, STDERR_FILENO);
  close(saved_);
  const std::string text = Text();
  ssize_t ignored = write(STDERR_FILENO, text.data(), text.size());  // keep it visible
  (void)ignored;
  unlink(file_.c_str());
}

std::string StderrCapture::Text() {
  std::ifstream in(file_);
  std::stringstream all;
  all << in.rdbuf();
  return all.str();
}

int32_t CallObject(Object target, uint32_t op, ObjectArg* args, uint32_t counts) {
  return target.invoke(target.context, op, args, counts);
}

}  // namespace ipc_test
