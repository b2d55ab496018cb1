#include "call_timeout.h"

#include <errno.h>
#include <stdlib.h>

#include "tarnsocket/tarn_ipc.h"

namespace tarnsocket {

uint32_t CallTimeoutMs() {
  const char* value = getenv("TARN_CALL_TIMEOUT_MS");
  if (value != nullptr && *value != '\0') {
    errno = 0;
    char* end = nullptr;
    const unsigned long ms = strtoul(value, &end, 10);
    if (errno == 0 && *end == '\0' && ms > 0 && ms <= 24ul * 3600 * 1000) {
      return static_cast<uint32_t>(ms);
    }
  }
  return TARN_IPC_DEFAULT_CALL_TIMEOUT_MS;
}

}  // namespace tarnsocket
