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
    const tsan_alert alert{.kind = kind,
                           .source = tc->cfg.source,
                           .programme = tag.ipg,
                           .stream = tag.istm,
                           .packet = tag.pkt_idx,
                           .has_pcr = tag.has_pcr,
                           .pcr = tag.last_pcr,
                           .pcr_age = tag.pcr_age,
                           .pid = pid,
                           .u = values};
    tc->alert_callback(tc->alert_opaque, &alert);
}
