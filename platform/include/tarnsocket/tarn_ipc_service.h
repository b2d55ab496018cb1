/*
 * The IPC library's two entry points as a service sees them: it loads
 * libtarnsocket.so at run time and looks these names up, so it needs their
 * types, not the library's header.
 */
#ifndef TARNSOCKET_TARN_IPC_SERVICE_H_
#define TARNSOCKET_TARN_IPC_SERVICE_H_

#include <tesk/object.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TARN_IPC_LIBRARY_NAME "libtarnsocket.so"
#define TARN_IPC_START_SERVICE_SYMBOL "TarnIPC_startServiceOnSocket"
#define TARN_IPC_JOIN_SYMBOL "TarnIPC_join"

/* Serves the root object {invoke, context} on the listening stream socket
 * fd; returns an opaque service handle, or null when fd cannot serve. */
typedef void* (*TarnIPC_startServiceOnSocket_t)(int fd, ObjectInvoke invoke, void* context);

/* Blocks until the service ends. */
typedef void (*TarnIPC_join_t)(void* service);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* TARNSOCKET_TARN_IPC_SERVICE_H_ */
