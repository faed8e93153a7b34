#include <libtarnlink/mpegts.h>

#include <libtarnlink/log.h>

#include <cstdlib>

namespace {

loglevel_ctx g_llctx{.mod = 7};

static_assert(sizeof(long) == sizeof(uint64_t)); // as the messages' formats take it

} // namespace

uint64_t calc_pcr_delta(uint64_t first, uint64_t last, int flags)
{
    // The short wrap comes first: a PCR that has just wrapped is a small step forward, not a
    // backward one.
    const uint64_t wrapped = last + P2_33 - first;
    if (wrapped < MAX_PCR_GAP)
        return wrapped;

    const uint64_t diff = last - first;
    if (first == 0)
        return diff;
    if (first > last) {
        LOG_STMT(WARN_level, "%s: PCR last=%lu < first=%lu diff=%lu\n", __func__, last, first,
                 diff);
        if ((flags & F_ABRT_PCR) != 0)
            abort();
        return 0;
    }
    if ((flags & F_MAX_PCRD) != 0 && diff > MAX_PCR_GAP)
        LOG_STMT(WARN_level, "%s: PCR gap=%lu exceeds max=%u; last=%lu, first=%lu\n", __func__,
                 diff, unsigned{MAX_PCR_GAP}, last, first);
    return diff;
}

uint64_t ts_pcr_delta(uint64_t first, uint64_t last) { return calc_pcr_delta(first, last, 0); }

uint32_t pcr_delta_ms(uint64_t first, uint64_t last)
{
    return static_cast<uint32_t>(ts_pcr_delta(first, last) / 90);
}
