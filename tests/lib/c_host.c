// A host written in C: every header of the library is C11 and its operations can be called.

#include <libtarnlink/config.h>
#include <libtarnlink/invariant.h>
#include <libtarnlink/lard.h>
#include <libtarnlink/log.h>
#include <libtarnlink/mpegts.h>
#include <libtarnlink/strops.h>
#include <libtarnlink/timeop.h>

static loglevel_ctx g_llctx = LOGLEVEL_CTX_INIT;

void c_host_speaks(void);

void c_host_speaks(void)
{
    static const uint8_t packet[188] = {MPEG_TS_SYNC, 0x41, 0, 0x30, 7, 0x10, 0x80, 0, 0, 0, 0x80};
    int64_t number = 0;
    INVARIANT(a2int64("2X", &number) == NUMBER_BAD_SUFFIX);
    INVARIANT(a2int64("1.5K", &number) == NUMBER_OK);
    LOG_STMT(NORM_level, "%d, %d, %ld\n", g_llctx.sec, ts_has_pcr(packet), (long)number);
    LOG_STMT(DEBUG_level, "not at this level\n");
    const tspan never = {.mode = TSPAN_TICKS, .val = {.ticks = 0}};
    log_access("%d %d\n", tspan_timed_out(&never, &never, NULL, 1),
               ts_pcr_base(packet) == P2_33 / 2 + 1);
}
