// Logging functions of the location framework. Every line carries a
// severity and a tag; a tag's level decides which severities are written.
//
// Levels (the value given to log_set_local_level_for_tag):
//   0  errors only
//   1  errors, warnings and info (the default for a tag never set)
//   2  adds debug
//   3  adds verbose (nothing in tesk logs at this level)
//
// The environment variable KY_LOG_LEVEL overrides the levels set in code:
// "2" applies to every tag, "tesk=2,vector=0" to the tags named, and the
// two forms mix ("1,tesk=2"). Lines go to the platform log; on a Linux host
// they go to stderr as
//   MM-DD HH:MM:SS.mmm  PID  TID L tag: text
// where L is one of E W I D V.
#ifndef KY_LOC_FW_LOG_H_
#define KY_LOC_FW_LOG_H_

namespace ky_loc_fw {

void log_error(const char* tag, const char* format, ...) __attribute__((format(printf, 2, 3)));
void log_warning(const char* tag, const char* format, ...) __attribute__((format(printf, 2, 3)));
void log_info(const char* tag, const char* format, ...) __attribute__((format(printf, 2, 3)));
void log_debug(const char* tag, const char* format, ...) __attribute__((format(printf, 2, 3)));

void log_set_local_level_for_tag(const char* tag, int level);

}  // namespace ky_loc_fw

#endif  // KY_LOC_FW_LOG_H_
