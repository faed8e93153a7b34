// Packet counters of a stream and of its programme.
#pragma once

#include "tsanalyze/context.h"

// The counters of a class of streams.
struct class_counters {
    uint64_t sa_stats::*pcount;
    uint64_t sa_stats::*acount;
};
constexpr class_counters COUNTERS_OF[]{
    {&sa_stats::v_pcount, &sa_stats::v_acount},
    {&sa_stats::a_pcount, &sa_stats::a_acount},
    {&sa_stats::s_pcount, &sa_stats::s_acount},
};
static_assert(COUNTERS_OF[CLASS_VIDEO].pcount == &sa_stats::v_pcount);
static_assert(COUNTERS_OF[CLASS_AUDIO].pcount == &sa_stats::a_pcount);
static_assert(COUNTERS_OF[CLASS_DATA].pcount == &sa_stats::s_pcount);

// Adds one packet to the counters of its stream and of the stream's programme. A packet of a known
// stream is always both processed and analysed.
inline void inc_pkt_stat(sa_stats *stat, stream_info *si)
{
    const class_counters &of_class = COUNTERS_OF[si->sclass];
    si->pcount += 1;
    si->acount += 1;
    stat->pcount += 1;
    stat->acount += 1;
    stat->*of_class.pcount += 1;
    stat->*of_class.acount += 1;
}
