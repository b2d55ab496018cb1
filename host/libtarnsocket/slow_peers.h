// Processes that recently left a service waiting for an answer. Their new
// connections start on probation, so that a client cannot buy a fresh wait
// by connecting again.
#ifndef TARNSOCKET_SLOW_PEERS_H_
#define TARNSOCKET_SLOW_PEERS_H_

#include <sys/types.h>

#include <chrono>

namespace tarnsocket {

constexpr std::chrono::seconds kSlowPeerMemory{60};

void RememberSlowPeer(pid_t pid);
bool RecentlySlowPeer(pid_t pid);

}  // namespace tarnsocket

#endif  // TARNSOCKET_SLOW_PEERS_H_
