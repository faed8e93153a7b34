// minimal_host_c <CAPTURE: analyses the packets on standard input. Alerts and the report go to
// standard error.

#include <libtarnlink/log.h>
#include <tsanalyze/tsanalyze.h>

int main(void)
{
    log_default(&g_log, stderr);
    tsan_config cfg;
    tsan_default_config(&cfg);
    const tsan_t th = tsan_init("stdin", &cfg, NULL);
    if (th == NULL)
        return TSAN_NO_MEMORY;
    uint8_t pkt[TS_PACKET_SIZE];
    while (fread(pkt, sizeof pkt, 1, stdin) == 1 && tsan_process(th, pkt) == TSAN_OK) {
    }
    tsan_check_ndat(th);
    tsan_dump_stats(stderr, th);
    tsan_free(th);
}
