#include <libtarnlink/config.h>

#include <libtarnlink/log.h>
#include <libtarnlink/strops.h>

#include <cstring>
#include <libconfig.h>

namespace {

loglevel_ctx g_llctx;

} // namespace

int load_config_setting_str(const config_setting_t *setting, const char *key, char *dst,
                            size_t size, const char *default_text)
{
    const char *text = nullptr;
    // Short of memory, the settings library hands out strings that are none.
    if (config_setting_lookup_string(setting, key, &text) == CONFIG_TRUE && text != nullptr) {
        const size_t len = strlen(text);
        if (len >= size) {
            LOG_STMT(ERR_level, "%s: %s value is too long (%ld), max = %ld characters.\n", __func__,
                     key, static_cast<long>(len), static_cast<long>(size));
            return SETTING_TOO_LONG;
        }
    } else {
        text = default_text != nullptr ? default_text : "";
    }
    copy_text(dst, size, text);
    return SETTING_OK;
}

int load_config_setting_size(const config_setting_t *setting, const char *key, size_t *out,
                             size_t default_size)
{
    long long number = 0;
    if (config_setting_lookup_int64(setting, key, &number) == CONFIG_TRUE) {
        *out = static_cast<size_t>(number);
        return SETTING_OK;
    }
    char text[32];
    if (load_config_setting_str(setting, key, text, sizeof text, nullptr) != SETTING_OK)
        return SETTING_TOO_LONG;
    if (text[0] == '\0') {
        *out = default_size;
        return SETTING_OK;
    }
    int64_t value = 0;
    const int rc = a2int64(text, &value);
    if (rc == NUMBER_OK)
        *out = static_cast<size_t>(value);
    return rc;
}
