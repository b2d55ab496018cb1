// One peer over one stream socket: the objects each side exported to the
// other, the calls waiting for answers, and the read side, which is held by
// one thread at a time (leader/follower): a caller waiting for its answer
// reads it itself; a worker that reads a call serves it itself after giving
// the read side back; the endpoint's monitor reads what arrives while
// nobody else does and wakes a worker only for a frame that is whole.
#ifndef TARNSOCKET_CONNECTION_H_
#define TARNSOCKET_CONNECTION_H_

#include <stdint.h>
#include <sys/types.h>

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include <tesk/object.h>

#include "clock.h"
#include "export_table.h"
#include "frame.h"
#include "frame_reader.h"
#include "invoke_frame.h"
#include "passed_back.h"
#include "peer_limits.h"
#include "proxy.h"
#include "socket_io.h"
#include "wake_word.h"

namespace tarnsocket {

class Endpoint;

// How long a socket may stay unwatched while the worker that read a call
// serves it; a call that takes longer gets its socket watched again.
constexpr std::chrono::milliseconds kUnwatchedGrace{5};
// However slowly the peer reads, it must take at least this many bytes per
// millisecond (16 MiB/s) beyond the stall timeout.
constexpr uint64_t kMinBytesPerMs = uint64_t{16} * 1024;

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  enum class Side { kServer, kClient };

  // Takes fd, a connected stream socket.
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
  // The last reference to a passed-back object went: unpins its export.
  void ReleasePassedBack(const PassedBack& passed);

  // The monitor saw the socket readable: reads what came without waiting.
  // True if a frame is whole and the caller must now start a worker on
  // ServeAsReader, which then holds the read side.
  bool ReadForMonitor();
  // Handles frames until the read side is handed on.
  void ServeAsReader();
  // Serves a call that a waiting caller read and handed over.
  void ServeHandedOver(InvokeFrame* frame);

  // The monitor's regular look: watches the socket again if a served call
  // has left it unwatched for longer than kUnwatchedGrace (at once if
  // `ticking` is false), sends releases still queued, ends the connection
  // if a frame is overdue, and counts the strike of a call the process
  // stopped waiting for early once the peer's own time for it is up. True
  // while it needs looking at again.
  bool Sweep(Clock::time_point now, bool ticking);

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
    // Until its frame is written the caller cannot read: the peer may be
    // writing to us just as we write to it, and must be read meanwhile.
    bool writing = true;
    int32_t result = 0;
    Object outs[kMaxSlots] = {};
    Clock::time_point deadline;
    WakeWord wake;  // bumped under mutex_ when done, the read side or the connection changes
  };
  enum class Accepted { kServe, kRefused, kEnded };

  void CloseWithLog(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // Logs once per connection and kind of refusal.
  void LogRefusal(bool* logged, const char* format, ...) __attribute__((format(printf, 3, 4)));

  // References (connection_references.cpp). Marshal fails when the export
  // limit is reached; Unmarshal undoes a Marshal whose frame is not sent.
  bool Marshal(const Object& object, ObjectRef* ref);
  void Unmarshal(const ObjectRef& ref);
  void Unpin(uint32_t handle);
  // Our own object named by a frame from the peer, pinned; the caller
  // holds the mutex and has checked the handle.
  Object PassBackLocked(uint32_t handle);
  // Drops references the library held for the peer, on a worker if this
  // thread is inside application code.
  void ReleaseOwned(std::vector<Object> objects);
  bool ResolveInvoke(InvokeFrame* frame);
  void DropInputs(InvokeFrame* frame);
  bool HandleRelease(const FrameHeader& header);

  // Writing (connection_writing.cpp). Writes one frame of `bytes` bytes,
  // after what is left of a frame an earlier writer did not finish.
  // *reading: the caller holds the read side, and gives it up (clearing
  // *reading) rather than block on a full socket with it, since the peer
  // may be blocked writing to us in turn. At give_up the caller stops
  // waiting: the rest is copied and a worker finishes it (-EINPROGRESS), or
  // nothing was written if another writer still held the socket (-EBUSY).
  int Send(iovec* iov, int count, uint64_t bytes, bool* reading = nullptr,
           Clock::time_point give_up = Clock::time_point::max());
  // Release frames never wait for the socket: they are queued, and the next
  // frame written carries them. While the endpoint is busy (ticking) they
  // wait for that frame or the monitor's next tick; otherwise they go at
  // once, or, when another writer holds the socket (one that a slow reader
  // holds up, say), whoever lets go of it next sends them.
  void SendRelease(uint32_t handle, uint32_t count);
  void SendQueuedReleases();
  // Send's writing, with write_mutex_ held by *lock, which it lets go.
  int WriteLocked(std::unique_lock<std::timed_mutex>* lock, iovec* iov, int count, uint64_t bytes,
                  bool* reading, Clock::time_point give_up);
  // Answers a call with result and null output objects; false if the read
  // side had to be given up on the way.
  bool SendRefusal(const FrameHeader& call, int32_t result);

  // Read side (connection_read_side.cpp); the *Locked helpers run under
  // mutex_. unwatched: a worker is about to serve a call it read; the socket
  // may stay unwatched for kUnwatchedGrace, since the worker usually takes
  // the read side back sooner.
  bool NeedsWatchLocked() const;
  void ArmLocked();
  void TakeReadSideLocked();
  void GiveUpReadSideLocked(bool unwatched = false);
  void GiveUpReadSide(bool unwatched = false);
  bool RetakeReadSide();
  // Takes the read side if nobody holds it and someone must read; true if taken.
  bool TakeFreeReadSide();
  bool TakeFreeReadSideLocked();
  // Callers waiting for an answer that can read it themselves.
  bool PendingWaitersLocked() const;
  // Wakes every waiting caller, to look at the read side or its answer.
  void WakeWaitersLocked();
  // A worker serving a call it read will take the read side back soon:
  // callers leave it free for that worker rather than read themselves.
  bool RetakerComingLocked() const;

  // Reading (connection_reading.cpp): handles frames until self's answer
  // came (self not null) or the read side was given up. Returns with the
  // read side given up either way.
  void ReadLoop(Waiter* self);
  // Answers and releases already read behind a call, up to the next call:
  // handled before the call is served, since they are quick and left to
  // another reader they would cost a worker of their own.
  void HandleAnswersBehind();
  Accepted Accept(InvokeFrame* frame, bool* reading);

  // Serving (connection_serving.cpp): runs the target, drops the call's
  // references, answers. retake: first take the read side back (a worker
  // that read the call itself). True if it holds the read side after.
  bool Serve(InvokeFrame* frame, bool retake);

  // Calling (connection_calling.cpp).
  bool HandleReply(const FrameHeader& header, const ObjectRef* refs, Waiter* self, bool* mine);
  // A late answer to a call whose caller gave up: its objects are let go,
  // and the next deferred call may go; *strikes is set if the answer came
  // too late for a call the budget cut short. False if no such call was made.
  bool DiscardReplyLocked(const FrameHeader& header, const ObjectRef* refs,
                          std::vector<Proxy*>* drop, bool* flush, size_t* strikes);
  // self's answer did not come in time; returns the call's result. cut:
  // the process's wait budget ended the wait, not the peer's own limit,
  // which comes at `due`.
  int32_t GiveUpWaiting(std::unique_lock<std::mutex>* lock, Waiter* self, bool cut,
                        Clock::time_point due);
  // Counts a strike; returns the strikes within the window.
  size_t StrikeLocked(Clock::time_point now);
  // Warns of strike number `strikes`, or ends the connection at the last.
  void ReportStrike(size_t strikes);
  // Counts the strike of a call the budget cut short once its peer's time
  // is up without an answer; true while such a call waits for its time.
  bool SweepUnproven(Clock::time_point now);
  // On probation: the call is encoded now and sent later, in order, by a
  // worker; the caller does not wait.
  int32_t Defer(uint32_t handle, uint32_t op, uint32_t counts, const uint64_t* sizes,
                const ObjectRef* refs, const ObjectArg* args, uint8_t depth, uint64_t body);
  // A release frame that must go after the deferred calls: queued behind
  // them, or false when too many wait already.
  bool DeferReleaseLocked(const uint8_t* head, size_t size);
  // Sends deferred calls one at a time, each after the previous answer.
  void FlushDeferred();

  const int fd_;
  const Side side_;
  Endpoint* const endpoint_;
  const uint64_t id_;
  const Limits limits_;
  // Answers to our calls and progress of our writes.
  const uint32_t peer_timeout_ms_;
  pid_t peer_pid_ = 0;

  std::timed_mutex write_mutex_;  // one frame at a time on the socket
  // What a writer that stopped waiting left of its frame; whoever writes
  // next sends it first. Under write_mutex_.
  std::vector<uint8_t> unsent_;
  std::mutex releases_mutex_;
  std::vector<uint8_t> queued_releases_;
  std::atomic<bool> releases_queued_{false};

  // Only the holder of the read side touches it (Overdue excepted).
  FrameReader reader_;

  std::mutex mutex_;
  bool closed_ = false;
  bool reader_busy_ = false;
  bool armed_ = false;
  // Since when the read side is free but the socket unwatched, or 0; set
  // under mutex_, read by the monitor without it.
  std::atomic<int64_t> unwatched_since_ns_{0};
  uint32_t next_call_id_ = 1;
  std::vector<Waiter*> waiters_;
  ExportTable exports_;
  std::unordered_map<uint32_t, Proxy*> imports_;
  uint32_t serving_ = 0;  // the peer's calls accepted and not yet answered
  // Workers serving a call they read themselves, who take the read side
  // back to answer (those waiting in a call of their own not counted):
  // callers leave the read side to them, so that they go on reading.
  uint32_t retakers_ = 0;
  uint32_t waiting_retakers_ = 0;
  // The connection whose read side this thread takes back after the call
  // it serves.
  static thread_local const Connection* retaking_;
  std::deque<uint32_t> abandoned_;  // calls whose callers stopped waiting
  std::deque<Clock::time_point> strikes_;
  // A service's calls into a peer that once left it waiting are not waited
  // for: they go out one at a time, each after the previous answer, until
  // the peer answers one in time again.
  struct Deferred {
    std::vector<uint8_t> bytes;
    uint32_t call_id;  // 0: a release frame
  };
  bool probation_ = false;
  std::deque<Deferred> deferred_;
  uint64_t deferred_bytes_ = 0;
  bool flushing_ = false;
  uint32_t outstanding_ = 0;           // the call sent on probation, unanswered
  Clock::time_point outstanding_due_;  // an answer by then ends the probation
  // The outstanding call is one the budget cut short: the peer earns its
  // strike only if no answer comes by outstanding_due_. The monitor reads
  // the due time (ns, 0 for none) without the lock.
  bool unproven_ = false;
  std::atomic<int64_t> unproven_due_ns_{0};
  bool logged_busy_ = false;
  bool logged_exports_ = false;
  bool logged_depth_ = false;
};

}  // namespace tarnsocket

#endif  // TARNSOCKET_CONNECTION_H_
