// Look-ups of a settings group (libconfig) that copy values out.
#pragma once

#include <cstddef>

struct config_setting_t;

// Copies the string `key` of `setting` into `dst`, or `default_text` (may be null) when the key is
// absent or no string, or makes `dst` empty. Returns 0, or -1 after an error line when the string
// has `size` or more characters.
int load_config_setting_str(const config_setting_t *setting, const char *key, char *dst,
                            size_t size, const char *default_text);

// Reads the size `key`: an integer, taken as it stands, or a string with an optional K, M or G
// suffix. An absent key, an empty string and a value of another type give `default_size`. Returns
// 0, -1 for a string that is too long, or the status of a2int64.
int load_config_setting_size(const config_setting_t *setting, const char *key, size_t *out,
                             size_t default_size);
