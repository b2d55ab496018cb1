// Creates a service's control socket the way init does: a Unix socket
// bound at <dir>/<name> with exactly the given mode, inherited by the service.
#ifndef TESK_HOST_INIT_CONTROL_SOCKET_H_
#define TESK_HOST_INIT_CONTROL_SOCKET_H_

#include <sys/types.h>

#include <string>

// `dir_fd` is the folder opened by OpenSocketFolder, `dir` its path. The
// socket file never exists with any other mode than `mode` (bound under a
// matching umask, which is changed for a moment: call it before starting
// threads). A stale socket file is replaced; a symlink, any other kind of
// file, or a socket a running service still answers on is refused.
// Returns the bound descriptor (not close-on-exec, not listening: the
// service listens itself), or -1 with *error saying what failed and why.
int CreateControlSocket(int dir_fd, const std::string& dir, const std::string& name, int type,
                        mode_t mode, std::string* error);

// Removes the socket file if it is still a socket; never follows a symlink.
void RemoveControlSocket(int dir_fd, const std::string& name);

#endif  // TESK_HOST_INIT_CONTROL_SOCKET_H_
