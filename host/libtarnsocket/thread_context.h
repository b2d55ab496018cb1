// Which thread may run an owner's release on behalf of the peer. Releases
// caused by the peer (its release frames, its death) must not run on a
// thread that is inside application code: that thread may hold the very
// lock the owner's release takes (an object that delivers events under its
// lock, say). Such releases go to a library worker instead.
#ifndef TARNSOCKET_THREAD_CONTEXT_H_
#define TARNSOCKET_THREAD_CONTEXT_H_

namespace tarnsocket {

// Marks the calling thread as one of the library's workers.
void EnterWorkerThread();

// True on a library worker that is not inside a served call.
bool InLibraryContext();

// How deeply the thread's current served call is nested: 0 outside any.
unsigned CurrentCallDepth();

// While alive, the thread counts as inside application code, serving a
// call nested depth deep.
class ApplicationCallScope {
 public:
  explicit ApplicationCallScope(unsigned depth);
  ~ApplicationCallScope();
  ApplicationCallScope(const ApplicationCallScope&) = delete;
  ApplicationCallScope& operator=(const ApplicationCallScope&) = delete;

 private:
  const unsigned outer_depth_;
};

}  // namespace tarnsocket

#endif  // TARNSOCKET_THREAD_CONTEXT_H_
