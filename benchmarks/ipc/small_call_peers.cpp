#include "benchmarks/ipc/small_call_peers.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "benchmarks/support/bench_support.h"
#include "tarnsocket/tarn_ipc.h"

namespace bench {
namespace {

std::string FreshPath(const char* kind) {
  static std::atomic<int> next{0};
  return "/tmp/tesk_bench_" + std::string(kind) + "_" + std::to_string(getpid()) + "_" +
         std::to_string(next++);
}

sockaddr_un Address(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

int32_t SmallInvoke(void*, uint32_t op, ObjectArg* args, uint32_t counts) {
  if ((op & OBJECT_OP_MASK) >= OBJECT_OP_RETAIN) return OBJECT_OK;
  if (counts != OBJECT_COUNTS(1, 0, 0, 0) || args[0].b.size != kSmallCall) {
    return OBJECT_ERROR_INVALID;
  }
  // Touches what arrived: callers send 64 bytes of 1.
  return static_cast<const uint8_t*>(args[0].b.ptr)[kSmallCall - 1] == 1 ? OBJECT_OK
                                                                         : OBJECT_ERROR_INVALID;
}

// Forks a server that binds `path` and runs `serve` on the bound socket;
// returns once it listens.
template <typename Serve>
PeerServer Fork(const char* name, const std::string& path, Serve serve) {
  unlink(path.c_str());
  int ready[2];
  if (pipe(ready) != 0) return {};
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_NAME, name);  // for profiles
    close(ready[0]);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = Address(path);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd, 256) != 0) {
      _exit(1);
    }
    serve(fd, ready[1]);
    _exit(0);
  }
  close(ready[1]);
  char byte = 0;
  const bool up = pid > 0 && ReadFull(ready[0], &byte, 1);
  close(ready[0]);
  PeerServer server;
  server.path = path;
  server.pid = up ? pid : -1;
  return server;
}

}  // namespace

void PeerServer::Stop() {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
  unlink(path.c_str());
  pid = -1;
}

PeerServer StartLibraryServer() {
  return Fork("library server", FreshPath("library"), [](int fd, int ready) {
    void* service = TarnIPC_startServiceOnSocket(fd, SmallInvoke, nullptr);
    if (service == nullptr) _exit(1);
    const char byte = 1;
    WriteFull(ready, &byte, 1);
    TarnIPC_join(service);
  });
}

PeerServer StartRawServer() {
  return Fork("raw server", FreshPath("raw"), [](int fd, int ready) {
    const char byte = 1;
    WriteFull(ready, &byte, 1);
    for (;;) {
      const int connection = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection < 0) continue;
      std::thread([connection] {
        unsigned char buffer[kSmallCall];
        while (ReadFull(connection, buffer, kSmallCall) &&
               WriteFull(connection, buffer, kSmallCall)) {
        }
        close(connection);
      }).detach();
    }
  });
}

SmallCaller::SmallCaller() {
  std::memset(buffer_, 1, sizeof buffer_);
}

bool SmallCaller::ConnectLibrary(const std::string& path) {
  return TarnIPC_connect(path.c_str(), &root_) == 0;
}

bool SmallCaller::ConnectRaw(const std::string& path) {
  fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = Address(path);
  return connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool SmallCaller::Call() {
  if (fd_ >= 0) return WriteFull(fd_, buffer_, kSmallCall) && ReadFull(fd_, buffer_, kSmallCall);
  ObjectArg args[1];
  args[0].b = ObjectBuf{buffer_, kSmallCall};
  return root_.invoke(root_.context, OBJECT_OP_METHOD, args, OBJECT_COUNTS(1, 0, 0, 0)) ==
         OBJECT_OK;
}

}  // namespace bench
