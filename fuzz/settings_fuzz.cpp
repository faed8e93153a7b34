// The text of a settings file: it is read, and is accepted exactly when the settings library's own
// reading of a stream accepts it.

#include "fuzz.h"
#include "tsa/settings_file.h"
#include "tsa/settings_text.h"
#include "tsanalyze/tsanalyze.h"

#include <cstdlib>
#include <libconfig.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

// The settings library's scanner forgets the text of a string that a syntax error cuts off: some
// bytes, once in a run.
extern "C" const char *__lsan_default_suppressions();
const char *__lsan_default_suppressions() { return "leak:strbuf_append\nleak:libconfig_yylex\n"; }

namespace {

// The line of the error, 0: none.
int error_line(config_t *document, bool ok)
{
    const int line = ok ? 0 : config_error_line(document);
    config_destroy(document);
    return line;
}

void compare_readings(FILE *fp)
{
    const settings_text settings = read_settings_text(fp);
    if (!settings.fault.empty())
        return;
    rewind(fp);
    config_t document;
    config_init(&document);
    const int theirs = error_line(&document, config_read(&document, fp) == CONFIG_TRUE);
    config_init(&document);
    const bool ok = config_read_string(&document, settings.text.c_str()) == CONFIG_TRUE;
    const int line = error_line(&document, ok);
    if (theirs != (ok ? 0 : line_of_file(settings, line)))
        abort();
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The library refuses a comment that ends a file without a line feed.
    const std::string text = std::string(data, data + size) + '\n';
    // A settings file may include others by name. Which they are is the user's affair; here it
    // would be any file of the machine.
    if (text.find("@include") != std::string::npos)
        return 0;
    swallow_logs();
    const int fd = memfd_create("settings", MFD_CLOEXEC);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        abort();
    FILE *fp = fopen(("/proc/self/fd/" + std::to_string(fd)).c_str(), "r");
    if (text.find('\0') == std::string::npos) // lines get lost behind a zero byte in a string
        compare_readings(fp);
    fclose(fp);
    tsan_config cfg{};
    if (load_config(("/proc/self/fd/" + std::to_string(fd)).c_str(), &cfg) == 0)
        tsan_dump_config(null_stream(), "analyzer", &cfg);
    close(fd);
    return 0;
}
