// The host IPC library's entry points have the types the daemon looks them
// up with.
#include <type_traits>

#include "tarnsocket/tarn_ipc.h"
#include "tarnsocket/tarn_ipc_service.h"

static_assert(
    std::is_same<decltype(&TarnIPC_startServiceOnSocket), TarnIPC_startServiceOnSocket_t>::value,
    "TarnIPC_startServiceOnSocket");
static_assert(std::is_same<decltype(&TarnIPC_join), TarnIPC_join_t>::value, "TarnIPC_join");
