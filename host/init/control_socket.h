// Creates a service's control socket the way init does: a Unix socket
// bound at <dir>/<name>, with the given mode, inherited by the service.
#ifndef TESK_HOST_INIT_CONTROL_SOCKET_H_
#define TESK_HOST_INIT_CONTROL_SOCKET_H_

#include <sys/types.h>

#include <string>

// Returns the bound descriptor (not close-on-exec, not listening: the
// service listens itself), or -1 with errno set and *error saying which
// step failed. A stale socket file at the path is replaced.
int CreateControlSocket(const std::string& dir, const std::string& name, int type, mode_t mode,
                        std::string* error);

#endif  // TESK_HOST_INIT_CONTROL_SOCKET_H_
