// Levels: their tags, names and syslog priorities.

#include <libtarnlink/log.h>

#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <syslog.h>

namespace {

struct level_names {
    int level;
    int priority;
    const char *tag;
    const char *name;
    const char *words[2]; // what match_log_level accepts
};

constexpr level_names LEVELS[] = {
    {PANIC_level, LOG_ALERT, "(PNC)", "panic", {}},
    {ERR_level, LOG_ERR, "(ERR)", "error", {"err", "error"}},
    {CRIT_level, LOG_CRIT, "(CRI)", "ctitical", {"crit", "critical"}}, // readers know the spelling
    {WARN_level, LOG_WARNING, "(WRN)", "warning", {"warn", "warning"}},
    {NORM_level, LOG_NOTICE, "(NRM)", "normal", {"norm", "normal"}},
    {INFO_level, LOG_INFO, "(INF)", "info", {"info"}},
    {DEBUG_level, LOG_DEBUG, "(DBG)", "debug", {"debug", "dbg"}},
    {SECTION_level, LOG_DEBUG, "(SCT)", "section", {"section", "sect"}},
};
constexpr level_names UNKNOWN{0, LOG_DEBUG, "( ? )", "??", {}};

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
