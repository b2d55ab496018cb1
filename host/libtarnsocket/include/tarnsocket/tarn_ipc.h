/*
 * Object IPC over Unix stream sockets: a process serves one root Object on
 * a socket; other processes connect and invoke it, and Objects cross in both
 * directions as callable references. See README.md next to this header for
 * the wire protocol, the threads and the lifetime rules.
 */
#ifndef TARNSOCKET_TARN_IPC_H_
#define TARNSOCKET_TARN_IPC_H_

#include <tesk/object.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A call into a peer's object that gets no answer within this time fails
 * with TARN_IPC_ERROR_TIMEOUT and ends that connection. The environment
 * variable TARN_CALL_TIMEOUT_MS overrides it for connections made after it
 * is set. */
#define TARN_IPC_DEFAULT_CALL_TIMEOUT_MS 5000

/* What one peer may cost this process; README.md says why each is what it
 * is. Each has an environment variable of the same name without the
 * TARN_IPC_DEFAULT_ prefix, with TARN_ before it (TARN_FRAME_TIMEOUT_MS...),
 * read for connections made after it is set. */
/* A service's call into a peer's object (a callback) gets no answer within
 * this time: the call fails with TARN_IPC_ERROR_TIMEOUT and counts a strike;
 * a write to the peer that makes no progress for this time ends the
 * connection. */
#define TARN_IPC_DEFAULT_CALLBACK_TIMEOUT_MS 200
/* Strikes within 30 s that end a service's connection. */
#define TARN_IPC_DEFAULT_CALLBACK_STRIKES 3
/* A frame not whole this long after its first byte ends the connection. */
#define TARN_IPC_DEFAULT_FRAME_TIMEOUT_MS 2000
/* A call into a service larger than this ends the connection. */
#define TARN_IPC_DEFAULT_MAX_CALL_BYTES (16u << 20)
/* Calls of one peer served at once; more fail with TARN_IPC_ERROR_BUSY. */
#define TARN_IPC_DEFAULT_MAX_CALLS_IN_FLIGHT 64
/* Objects exported to one peer; more fail with
 * TARN_IPC_ERROR_TOO_MANY_OBJECTS. */
#define TARN_IPC_DEFAULT_MAX_EXPORTS 1024
/* Calls nested inside served calls; deeper ones fail at once with
 * TARN_IPC_ERROR_TOO_DEEP. At most 255. */
#define TARN_IPC_DEFAULT_MAX_CALL_DEPTH 32
/* What the whole process may spend waiting on its clients' answers (and on
 * their reading), shared by every connection of every service: at most this
 * much at once, refilled by TARN_IPC_DEFAULT_WAIT_REFILL_MS every second. A
 * wait the budget cuts short leaves the call to be answered in the
 * background, like a call on probation. Read when a service starts. */
#define TARN_IPC_DEFAULT_WAIT_BUDGET_MS 200
#define TARN_IPC_DEFAULT_WAIT_REFILL_MS 100
/* Received-call buffers kept for reuse by the whole process. */
#define TARN_IPC_DEFAULT_KEPT_BUFFER_BYTES (16u << 20)

/* Results of calls on remote objects that the transport, not the remote
 * object, produced. */
#define TARN_IPC_ERROR_DEAD (-32)             /* the connection is gone (-EPIPE) */
#define TARN_IPC_ERROR_TIMEOUT (-110)         /* no answer in time (-ETIMEDOUT) */
#define TARN_IPC_ERROR_BUSY (-16)             /* too many calls in flight (-EBUSY) */
#define TARN_IPC_ERROR_TOO_DEEP (-40)         /* nested too deeply (-ELOOP) */
#define TARN_IPC_ERROR_TOO_MANY_OBJECTS (-28) /* export limit reached (-ENOSPC) */

/*
 * Serves the root object {invoke, context} to every client that connects to
 * the Unix stream socket fd, which must be bound; listen() is called here
 * (harmless if it already listens). The fd stays owned by the caller and is
 * switched to non-blocking mode. Returns an opaque service handle, or null
 * if fd cannot serve (not a socket, not a stream socket, listen fails).
 */
void* TarnIPC_startServiceOnSocket(int fd, ObjectInvoke invoke, void* context);

/* Blocks until the service ends: accept() failed with a non-transient error,
 * the listening socket was shut down, or TarnIPC_stopService was called. By then every connection
 * is closed, the references its peer held are released and the library's threads of this service
 * have exited. */
void TarnIPC_join(void* service);

/* Ends the service: stops accepting and closes every connection as if its
 * peer had died. Returns at once; TarnIPC_join waits for the end. */
void TarnIPC_stopService(void* service);

/*
 * Connects to the service at socket_path. On success returns 0 and stores
 * the root object, carrying one reference, in *root_out; otherwise a
 * negative errno. The connection closes when this process holds no object
 * obtained through it any more; the peer's references to this process's
 * objects are then released.
 */
int TarnIPC_connect(const char* socket_path, Object* root_out);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* TARNSOCKET_TARN_IPC_H_ */
