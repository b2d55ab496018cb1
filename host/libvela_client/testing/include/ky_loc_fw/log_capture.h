// Host-only: lets a test see every line that passes the level filter, with
// its exact text, before it is written to stderr.
#ifndef KY_LOC_FW_LOG_CAPTURE_H_
#define KY_LOC_FW_LOG_CAPTURE_H_

namespace ky_loc_fw {

// letter is one of 'E', 'W', 'I', 'D'; text is the formatted message as the
// caller wrote it, trailing newline included.
using LogSink = void (*)(void* context, char letter, const char* tag, const char* text);

// Installs a sink (null removes it). With a sink installed, lines still go
// to stderr unless quiet is true.
void log_set_sink(LogSink sink, void* context, bool quiet);

}  // namespace ky_loc_fw

#endif  // KY_LOC_FW_LOG_CAPTURE_H_
