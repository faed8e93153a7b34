// Alerts as data, for hosts that want them: what every writer of an alert calls last.
#pragma once

#include "tsanalyze/context.h"

// Whether the host wants records; nothing need be made of an alert otherwise.
inline bool tells_alerts(const tsan_ctx *tc) { return tc->alert_callback != nullptr; }

// Hands a record to the host: the kind, the PID it is about (0: none) and its values, and what the
// packet's tag says.
void tell_alert(const tsan_ctx *tc, tsan_alert_kind kind, uint32_t pid,
                const tsan_alert_values &values);
