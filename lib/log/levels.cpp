// Levels: their tags, names and syslog priorities.

#include <libtarnlink/log.h>

#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <syslog.h>

namespace {

struct level_names {
    int level;
    const char *tag;
    const char *name;
    const char *words[2]; // what match_log_level accepts
    int priority;
};

constexpr level_names LEVELS[] = {
    {PANIC_level, "(PNC)", "panic", {}, LOG_ALERT},
    {ERR_level, "(ERR)", "error", {"err", "error"}, LOG_ERR},
    {CRIT_level, "(CRI)", "ctitical", {"crit", "critical"}, LOG_CRIT}, // readers know the spelling
    {WARN_level, "(WRN)", "warning", {"warn", "warning"}, LOG_WARNING},
    {NORM_level, "(NRM)", "normal", {"norm", "normal"}, LOG_NOTICE},
    {INFO_level, "(INF)", "info", {"info"}, LOG_INFO},
    {DEBUG_level, "(DBG)", "debug", {"debug", "dbg"}, LOG_DEBUG},
    {SECTION_level, "(SCT)", "section", {"section", "sect"}, LOG_DEBUG},
};
constexpr level_names UNKNOWN{0, "( ? )", "??", {}, LOG_DEBUG};

const level_names &names_of(int level)
{
    for (const level_names &l : LEVELS)
        if (l.level == level)
            return l;
    return UNKNOWN;
}

} // namespace

const char *get_level_tag(int level) { return names_of(level).tag; }

const char *log_level_str(int level) { return names_of(level).name; }

int get_syslog_pri(int level) { return names_of(level).priority; }

int match_log_level(const char *str, int *level)
{
    for (const level_names &l : LEVELS)
        for (const char *word : l.words)
            if (word != nullptr && strcasecmp(str, word) == 0) {
                *level = l.level;
                return LOG_OK;
            }
    return LOG_FAILED;
}

int read_level_env(const char *varname, int default_level)
{
    const char *text = getenv(varname);
    if (text == nullptr)
        return default_level;
    const int level = atoi(text);
    return level != 0 || strcmp(text, "0") == 0 ? level : default_level;
}
