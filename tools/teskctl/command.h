// teskctl: the subcommands and what they share.
#ifndef TESK_TOOLS_TESKCTL_COMMAND_H_
#define TESK_TOOLS_TESKCTL_COMMAND_H_

#include <cstdint>
#include <string>

#include <tesk/object.h>

// Exit statuses. 1, 2 and 5 are the daemon's own codes passed through, so
// a script sees the same number the daemon answered.
constexpr int kExitOk = 0;
constexpr int kExitNotStarted = 1;     // the daemon answered 1: scan not started
constexpr int kExitInvalid = 2;        // the daemon answered 2: invalid invocation
constexpr int kExitUnreachable = 3;    // no daemon on the socket
constexpr int kExitTimeout = 4;        // no answer within --timeout
constexpr int kExitBadResponse = 5;    // results came with the bad-response status 5
constexpr int kExitUsage = 64;         // bad command line (EX_USAGE)
constexpr int kExitInterrupted = 130;  // SIGINT/SIGTERM after a clean release

struct GlobalOptions {
  std::string socket_path;  // --socket, default from $TESK_SOCKET or the build's socket dir
  bool json = false;        // --json: one JSON object per line
  int timeout_ms = 10000;   // --timeout SECONDS: how long to wait for results
};

// Connects to the daemon and opens interface `interface_id` on its root.
// On success returns kExitOk with *service holding one reference; the root
// is released before returning. Otherwise prints why to stderr and returns
// kExitUnreachable, or the daemon's own result code.
int OpenInterface(const GlobalOptions& options, uint32_t interface_id, Object* service);

int RunScanCommand(const GlobalOptions& options, int argc, char** argv);
int RunRangeCommand(const GlobalOptions& options, int argc, char** argv);
int RunWatchCommand(const GlobalOptions& options, int argc, char** argv);

#endif  // TESK_TOOLS_TESKCTL_COMMAND_H_
