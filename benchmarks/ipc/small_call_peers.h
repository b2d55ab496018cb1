// The two servers that small-call benchmarks compare, each in a forked
// process of its own: one serving an object through the IPC library, one
// answering raw 64-byte messages over the same kind of socket.
#ifndef TESK_BENCHMARKS_IPC_SMALL_CALL_PEERS_H_
#define TESK_BENCHMARKS_IPC_SMALL_CALL_PEERS_H_

#include <sys/types.h>

#include <cstddef>
#include <string>

#include <tesk/object.h>

namespace bench {

constexpr size_t kSmallCall = 64;

// A server process listening at a fresh socket path. Fork it before this
// process starts any thread.
struct PeerServer {
  pid_t pid = -1;
  std::string path;
  bool ok() const { return pid > 0; }
  void Stop();  // SIGTERM, reap, remove the socket file
};

// Serves an object whose method reads its one 64-byte buffer and answers 0.
PeerServer StartLibraryServer();
// Answers every 64 bytes read with 64 bytes, a thread per connection.
PeerServer StartRawServer();

// One caller's connection to either.
class SmallCaller {
 public:
  SmallCaller();
  // False when the server cannot be reached.
  bool ConnectLibrary(const std::string& path);
  bool ConnectRaw(const std::string& path);
  // One call; false when it failed.
  bool Call();

 private:
  unsigned char buffer_[kSmallCall];
  Object root_ = kNullObject;
  int fd_ = -1;
};

}  // namespace bench

#endif  // TESK_BENCHMARKS_IPC_SMALL_CALL_PEERS_H_
