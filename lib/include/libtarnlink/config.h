// Look-ups of a settings group (libconfig) that copy values out. Failures are told by the logger.
#pragma once

#include <stddef.h>

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

typedef struct config_setting_t config_setting_t; // libconfig's

enum setting_status {
    SETTING_OK = 0,
    SETTING_TOO_LONG = -1, // after an error line
};

// Copies the string `key` of `setting` into `dst`, which has room for `size` bytes (not 0), or
// `default_text` (may be null, cut when too long) when the key is absent or no string, or makes
// `dst` empty. Returns a setting_status; on failure `dst` is left as it was.
int load_config_setting_str(const config_setting_t *setting, const char *key, char *dst,
                            size_t size, const char *default_text);

// Reads the size `key`: an integer, taken as it stands (a negative one becomes a huge size), or a
// string with an optional K, M or G suffix, up to 31 characters. An absent key, an empty string and
// a value of another type give `default_size`. Returns SETTING_OK, SETTING_TOO_LONG or the
// number_status of a2int64 (strops.h); on failure `*out` is left as it was.
int load_config_setting_size(const config_setting_t *setting, const char *key, size_t *out,
                             size_t default_size);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
