// How long a call may wait for its answer, and a send for room in the
// socket, before the peer counts as stalled.
#ifndef TARNSOCKET_CALL_TIMEOUT_H_
#define TARNSOCKET_CALL_TIMEOUT_H_

#include <stdint.h>

namespace tarnsocket {

// TARN_CALL_TIMEOUT_MS if it holds a positive number, else
// TARN_IPC_DEFAULT_CALL_TIMEOUT_MS. Read for every new connection.
uint32_t CallTimeoutMs();

}  // namespace tarnsocket

#endif  // TARNSOCKET_CALL_TIMEOUT_H_
