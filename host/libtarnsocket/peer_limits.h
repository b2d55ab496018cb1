// What one peer may cost this process: each limit has a default in
// tarn_ipc.h and an environment variable that overrides it for connections
// made after it is set.
#ifndef TARNSOCKET_PEER_LIMITS_H_
#define TARNSOCKET_PEER_LIMITS_H_

#include <stdint.h>

namespace tarnsocket {

struct Limits {
  // Answer to a call and progress of a write, on a client's connection.
  uint32_t call_timeout_ms;
  // On a service's connection: answer to a call into the peer's objects and
  // progress of every write to the peer.
  uint32_t callback_timeout_ms;
  // Unanswered calls into the peer's objects, within kStrikeWindowMs, that
  // end a service's connection.
  uint32_t callback_strikes;
  // From a frame's first byte to its last.
  uint32_t frame_timeout_ms;
  // Body of one call the peer makes into a service.
  uint64_t max_call_bytes;
  // Calls of the peer being served or waiting for a worker.
  uint32_t max_calls_in_flight;
  // Objects of this process the peer may hold.
  uint32_t max_exports;
  // Calls nested inside served calls, across every process of the chain.
  uint32_t max_call_depth;
  // The process's budget for waiting on clients (wait_budget.h): capacity
  // and refill per second.
  uint32_t wait_budget_ms;
  uint32_t wait_refill_ms;
};

constexpr uint32_t kStrikeWindowMs = 30000;

// The defaults, overridden by the environment.
Limits ReadLimits();

// Total bytes of received-call buffers kept for reuse by the process.
uint64_t KeptBufferBytes();

}  // namespace tarnsocket

#endif  // TARNSOCKET_PEER_LIMITS_H_
