// An input of packets as steps for two roads.
#pragma once

#include "engine/two_roads.h"
#include "fuzz/packet_input.h"

#include <vector>

struct road_input {
    std::vector<own_packet> packets;
    std::vector<road_step> steps;
};

inline road_input steps_of(std::span<const uint8_t> in)
{
    constexpr size_t most_steps = 500; // longer inputs find nothing that shorter ones do not
    const bool seals = settings_of(in).iso_rules && !settings_bit(in, 5);
    in = in.subspan(SETTINGS_LEN);
    road_input all;
    while (all.steps.size() < most_steps) {
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
        if (seals)
            seal_section(step->pkt.get());
        all.steps.push_back({.pkt = step->pkt->data()});
        all.packets.push_back(std::move(step->pkt));
    }
    return all;
}
