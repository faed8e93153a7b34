// Packets along the short road and along the whole one: a user sees the same.

#include "engine/two_roads.h"
#include "fuzz.h"
#include "packet_input.h"

#include <libtarnlink/invariant.h>

#include <vector>

namespace {

// Longer inputs find nothing that shorter ones do not.
constexpr size_t MOST_STEPS = 500;

struct road_input {
    std::vector<own_packet> packets;
    std::vector<road_step> steps;
};

road_input steps_of(std::span<const uint8_t> in)
{
    road_input all;
    while (all.steps.size() < MOST_STEPS) {
        auto step = take_step(&in);
        if (!step.has_value())
            break;
        if (step->pkt == nullptr) {
            if (all.packets.empty()) // before it the context has no start to count from
                continue;
            const unsigned act = 1 + step->act % (road_step::ACT_COUNT - 1);
            all.steps.push_back({.act = static_cast<enum road_step::act>(act)});
            continue;
        }
        all.steps.push_back({.pkt = step->pkt->data()});
        all.packets.push_back(std::move(step->pkt));
    }
    return all;
}

} // namespace

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
    const road_input input = steps_of(in.subspan(SETTINGS_LEN));
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
