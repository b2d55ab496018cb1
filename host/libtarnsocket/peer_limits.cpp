#include "peer_limits.h"

#include <errno.h>
#include <stdlib.h>

#include "tarnsocket/tarn_ipc.h"

namespace tarnsocket {
namespace {

// A positive number up to max from the environment, else fallback.
uint64_t FromEnvironment(const char* name, uint64_t fallback, uint64_t max) {
  // Read once, before the library starts a thread.
  const char* value = getenv(name);  // NOLINT(concurrency-mt-unsafe)
  if (value == nullptr || *value == '\0') return fallback;
  errno = 0;
  char* end = nullptr;
  const unsigned long long number = strtoull(value, &end, 10);
  if (errno != 0 || *end != '\0' || number == 0 || number > max) return fallback;
  return number;
}

constexpr uint64_t kDay = 24ull * 3600 * 1000;

}  // namespace

Limits ReadLimits() {
  Limits limits{};
  limits.call_timeout_ms = static_cast<uint32_t>(
      FromEnvironment("TARN_CALL_TIMEOUT_MS", TARN_IPC_DEFAULT_CALL_TIMEOUT_MS, kDay));
  limits.callback_timeout_ms = static_cast<uint32_t>(
      FromEnvironment("TARN_CALLBACK_TIMEOUT_MS", TARN_IPC_DEFAULT_CALLBACK_TIMEOUT_MS, kDay));
  limits.callback_strikes = static_cast<uint32_t>(
      FromEnvironment("TARN_CALLBACK_STRIKES", TARN_IPC_DEFAULT_CALLBACK_STRIKES, 1000));
  limits.frame_timeout_ms = static_cast<uint32_t>(
      FromEnvironment("TARN_FRAME_TIMEOUT_MS", TARN_IPC_DEFAULT_FRAME_TIMEOUT_MS, kDay));
  limits.max_call_bytes =
      FromEnvironment("TARN_MAX_CALL_BYTES", TARN_IPC_DEFAULT_MAX_CALL_BYTES, 64ull << 20);
  limits.max_calls_in_flight = static_cast<uint32_t>(
      FromEnvironment("TARN_MAX_CALLS_IN_FLIGHT", TARN_IPC_DEFAULT_MAX_CALLS_IN_FLIGHT, 1u << 20));
  limits.max_exports = static_cast<uint32_t>(
      FromEnvironment("TARN_MAX_EXPORTS", TARN_IPC_DEFAULT_MAX_EXPORTS, 1u << 24));
  // The frame carries the depth in one byte.
  limits.max_call_depth = static_cast<uint32_t>(
      FromEnvironment("TARN_MAX_CALL_DEPTH", TARN_IPC_DEFAULT_MAX_CALL_DEPTH, 255));
  limits.wait_budget_ms = static_cast<uint32_t>(
      FromEnvironment("TARN_WAIT_BUDGET_MS", TARN_IPC_DEFAULT_WAIT_BUDGET_MS, kDay));
  // A refill of a second a second would be no budget at all.
  limits.wait_refill_ms = static_cast<uint32_t>(
      FromEnvironment("TARN_WAIT_REFILL_MS", TARN_IPC_DEFAULT_WAIT_REFILL_MS, 999));
  return limits;
}

uint64_t KeptBufferBytes() {
  static const uint64_t bytes = FromEnvironment(
      "TARN_KEPT_BUFFER_BYTES", TARN_IPC_DEFAULT_KEPT_BUFFER_BYTES, uint64_t{1} << 40);
  return bytes;
}

}  // namespace tarnsocket
