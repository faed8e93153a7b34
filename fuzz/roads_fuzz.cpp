// Packets along the short road and along the whole one: a user sees the same.

#include "fuzz/fuzz.h"
#include "fuzz/road_input.h"

#include <libtarnlink/invariant.h>

// Takes the place of the library's: both roads break the same invariants.
void invariant_failed(const char *expression, const char *, const char *)
{
    throw broken_invariant{expression};
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < SETTINGS_LEN)
        return 0;
    const std::span<const uint8_t> in(data, size);
    const tsan_config cfg = settings_of(in);
    const road_input input = steps_of(in);
    if (input.packets.empty())
        return 0;
    log_set_modules(&g_log, settings_bit(in, 6) ? DEBUG_level : NORM_level);
    static time_t start = 1000; // notices of the whole process are due again at each
    const std::string whole = road_trip(cfg, input.steps, road::WHOLE, start += 10000);
    const std::string by_shortcuts = road_trip(cfg, input.steps, road::SHORT, start += 10000);
    if (by_shortcuts == whole)
        return 0;
    const auto differs =
        std::mismatch(whole.begin(), whole.end(), by_shortcuts.begin(), by_shortcuts.end());
    fprintf(stderr, "whole: %.300s\n\nshort: %.300s\n", &*differs.first, &*differs.second);
    abort();
}
