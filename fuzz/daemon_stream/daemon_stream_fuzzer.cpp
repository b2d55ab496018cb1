// The daemon's socket as a hostile client sees it: the input is written as
// one client's byte stream to the IPC library serving the daemon's root
// object, then the client stops sending and reads until the daemon ends the
// connection. Frames are read, checked and served by the real library, so
// every malformed or hostile stream reaches the objects only as far as the
// library lets it.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "fuzz/support/served_call.h"
#include "service/root_object.h"
#include "tarnsocket/tarn_ipc.h"

namespace {

// Serves on an abstract address (nothing to clean up in the file system),
// which it returns.
sockaddr_un Serve() {
  fuzz_support::UseInstantService();
  // A stream that leaves a call unanswered must not hold a run for long.
  setenv("TARN_CALL_TIMEOUT_MS", "200", 1);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path + 1, sizeof address.sun_path - 1, "tesk-fuzz-%d", getpid());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      TarnIPC_startServiceOnSocket(fd, root_invoke, nullptr) == nullptr) {
    abort();
  }
  return address;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const sockaddr_un address = Serve();
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) abort();
  // The daemon may end the connection before it has read everything.
  for (size_t at = 0; at < size;) {
    const ssize_t n = send(fd, data + at, size - at, MSG_NOSIGNAL);
    if (n <= 0) break;
    at += static_cast<size_t>(n);
  }
  shutdown(fd, SHUT_WR);
  char sink[65536];
  while (read(fd, sink, sizeof sink) > 0) {
  }
  close(fd);
  fuzz_support::SettleService();
  return 0;
}
