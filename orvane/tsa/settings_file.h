// The settings file of -C.
#pragma once

struct tsan_config;

// Reads the group "orv.stream_analyzer" of a settings file (libconfig syntax) over `cfg`. Returns
// 0, -1 when the file cannot be read or lacks the group, or the status of tsan_load_config; every
// failure was reported.
int load_config(const char *fpath, tsan_config *cfg);
