// The text of a settings file.

#include "fuzz_logs.h"
#include "tsa/settings_file.h"
#include "tsanalyze/tsanalyze.h"

#include <cstdlib>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

// The settings library's scanner forgets the text of a string that a syntax error cuts off: some
// bytes, once in a run.
extern "C" const char *__lsan_default_suppressions();
const char *__lsan_default_suppressions() { return "leak:strbuf_append\nleak:libconfig_yylex\n"; }

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(data, data + size);
    // A settings file may include others by name. Which they are is the user's affair; here it
    // would be any file of the machine.
    if (text.find("@include") != std::string::npos)
        return 0;
    swallow_logs();
    const int fd = memfd_create("settings", MFD_CLOEXEC);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        abort();
    tsan_config cfg{};
    if (load_config(("/proc/self/fd/" + std::to_string(fd)).c_str(), &cfg) == 0)
        tsan_dump_config(null_stream(), "analyzer", &cfg);
    close(fd);
    return 0;
}
