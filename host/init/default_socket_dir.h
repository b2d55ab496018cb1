// Where the control socket lives on the host when nobody says otherwise;
// shared by hostinit, which creates it, and the clients that look for it.
#ifndef TESK_HOST_INIT_DEFAULT_SOCKET_DIR_H_
#define TESK_HOST_INIT_DEFAULT_SOCKET_DIR_H_

#include <string>

// The folder set at configure time (TESK_SOCKET_DIR) if any; otherwise
// $XDG_RUNTIME_DIR/tesk when that variable holds an absolute path;
// otherwise /tmp/tesk-<uid>.
std::string DefaultSocketDir();

#endif  // TESK_HOST_INIT_DEFAULT_SOCKET_DIR_H_
