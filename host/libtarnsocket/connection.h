// One peer over one stream socket: the objects each side exported to the
// other, the calls waiting for answers, and the read side, which is held by
// one thread at a time (leader/follower): a caller waiting for its answer
// reads it itself; a worker that reads a call serves it itself after giving
// the read side back; the endpoint's monitor wakes a worker only when data
// arrives while nobody reads.
#ifndef TARNSOCKET_CONNECTION_H_
#define TARNSOCKET_CONNECTION_H_

#include <stdint.h>
#include <sys/types.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "export_table.h"
#include "frame.h"
#include "invoke_frame.h"
#include "proxy.h"
#include "service/object.h"
#include "socket_io.h"

namespace tarnsocket {

class Endpoint;

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  enum class Side { kServer, kClient };

  // Takes fd, a connected stream socket, and sets its timeouts.
  Connection(int fd, Side side, Endpoint* endpoint, uint64_t id);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  uint64_t id() const { return id_; }
  int fd() const { return fd_; }

  // Server side, before the connection is watched: the root becomes handle 0.
  void ExportRoot(const Object& root);
  // Client side: the proxy of the server's handle 0, with one reference.
  Object ImportRoot();

  int32_t Call(uint32_t handle, uint32_t op, ObjectArg* args, uint32_t counts);
  void RetainProxy(Proxy* proxy);
  void ReleaseProxy(Proxy* proxy);

  // The monitor saw the socket ready; true if the caller must now start a
  // worker on ServeAsReader.
  bool ClaimReadSide();
  // Reads and serves until the read side is handed on.
  void ServeAsReader();
  // Serves a call that a waiting caller read and handed over.
  void ServeHandedOver(InvokeFrame* frame);

  // Ends the connection; why, if not null, is logged. Every reference the
  // peer held is released, every waiting call fails.
  void Close(const char* why);

  // Whether the monitor should watch the socket whenever nobody reads it.
  void set_watched(bool watched) { armed_ = watched; }

 private:
  struct Waiter {
    uint32_t call_id = 0;
    unsigned out_objs = 0;
    bool done = false;
    bool timed_out = false;
    int32_t result = 0;
    Object outs[kMaxSlots] = {};
    bool pinned[kMaxSlots] = {};
    uint32_t pinned_handles[kMaxSlots] = {};
    Clock::time_point deadline;
    std::condition_variable cv;
  };

  void CloseWithLog(const char* format, ...) __attribute__((format(printf, 2, 3)));

  ObjectRef Marshal(const Object& object);
  void Unpin(uint32_t handle);
  // Drops references the library held for the peer, on a worker if this
  // thread is inside application code.
  void ReleaseOwned(std::vector<Object> objects);
  // Writes one frame. *reading: the caller holds the read side, and gives
  // it up (clearing *reading) rather than block on a full socket with it,
  // since the peer may be blocked writing to us in turn.
  int Send(iovec* iov, int count, bool* reading = nullptr);
  void SendRelease(uint32_t handle, uint32_t count);

  // Read side; the *Locked helpers run under mutex_.
  bool NeedsWatchLocked() const;
  void ArmLocked();
  void DisarmLocked();
  void GiveUpReadSideLocked();
  void GiveUpReadSide();
  bool RetakeReadSide();
  bool PendingWaitersLocked() const;

  // Reads frames until self's answer came (self not null) or the read side
  // was given up. Returns with the read side given up either way.
  void ReadLoop(Waiter* self);
  // Reads through in_: one read often brings a whole small frame.
  RecvStatus ReadHeader(FrameHeader* header);
  RecvStatus Fill(iovec* iov, int count);
  bool ReadInvoke(const FrameHeader& header, InvokeFrame* frame);
  bool ResolveInvoke(InvokeFrame* frame);
  bool HandleReply(const FrameHeader& header, Waiter* self, bool* mine);
  bool HandleRelease(const FrameHeader& header);
  // Runs the target, drops the call's references, answers. retake: first
  // take the read side back (a worker that read the call itself).
  bool Serve(InvokeFrame* frame, bool retake);
  void DropInputs(InvokeFrame* frame);

  const int fd_;
  const Side side_;
  Endpoint* const endpoint_;
  const uint64_t id_;
  const uint32_t timeout_ms_;
  pid_t peer_pid_ = 0;

  std::mutex write_mutex_;  // one frame at a time on the socket

  // Bytes read ahead of the frame being handled; only the holder of the
  // read side touches them.
  std::vector<uint8_t> in_;
  size_t in_begin_ = 0;
  size_t in_end_ = 0;

  std::mutex mutex_;
  bool closed_ = false;
  bool reader_busy_ = false;
  bool armed_ = false;
  uint32_t next_call_id_ = 1;
  std::vector<Waiter*> waiters_;
  ExportTable exports_;
  std::unordered_map<uint32_t, Proxy*> imports_;
};

}  // namespace tarnsocket

#endif  // TARNSOCKET_CONNECTION_H_
