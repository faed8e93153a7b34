#include "tsanalyze/alert.h"

#include "tsanalyze/tag.h"

void tsan_set_alert_callback(tsan_t tc, tsan_alert_callback callback, void *opaque)
{
    tc->alert_callback = callback;
    tc->alert_opaque = opaque;
}

void tell_alert(const tsan_ctx *tc, tsan_alert_kind kind, uint32_t pid,
                const tsan_alert_values &values)
{
    const packet_tag tag = current_tag(tc);
    tsan_alert alert{};
    alert.kind = kind;
    alert.source = tc->cfg.source;
    alert.programme = tag.ipg;
    alert.stream = tag.istm;
    alert.packet = tag.pkt_idx;
    alert.has_pcr = tag.has_pcr;
    alert.pcr = tag.last_pcr;
    alert.pcr_age = tag.pcr_age;
    alert.pid = pid;
    alert.u = values;
    tc->alert_callback(tc->alert_opaque, &alert);
}
