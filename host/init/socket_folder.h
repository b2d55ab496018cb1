// Opens the folder that will hold a control socket, making sure nobody but
// the launching user (and root) can create, replace or redirect anything on
// the way to it.
#ifndef TESK_HOST_INIT_SOCKET_FOLDER_H_
#define TESK_HOST_INIT_SOCKET_FOLDER_H_

#include <sys/types.h>

#include <string>

// Walks `dir` (an absolute path) from the root one component at a time
// without following symlinks. Every folder above it must belong to root or
// to the effective user and be writable by nobody else unless sticky (as
// /tmp is). The folder itself must belong to the effective user and be
// writable by nobody else; missing folders are created with `create_mode`
// exactly (the umask does not apply). Returns an O_PATH descriptor of the
// folder (close-on-exec), or -1 with *error saying what was refused and why.
// Changes the process umask for a moment: call it before starting threads.
int OpenSocketFolder(const std::string& dir, mode_t create_mode, std::string* error);

#endif  // TESK_HOST_INIT_SOCKET_FOLDER_H_
