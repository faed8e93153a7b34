// The packet's tag, a short text that names the current packet at the end of every message.
//
// Almost nobody reads it, so it is written only when a line needs it. It tells the programme's PCR
// as it was when the packet came: what it is made of is read from the context as long as that has
// not changed, and taken down just before it does.
#pragma once

#include "tsanalyze/context.h"

// The text of a tag, such as "0:1[5123]:(pcr=8100000)+12"; 62 characters at most.
struct tag_string {
    char text[PKTIDX_LEN];
};
tag_string tag_text(const packet_tag &tag);
packet_tag current_tag(const tsan_ctx *tc);
tag_string tag_text(const tsan_ctx *tc); // the current packet's; empty before the first

// Takes the current packet's tag down: before its own PCR is stored, or a host changes its number.
void mk_ptag(tsan_ctx *tc);

// Makes another meaning of the packet's PID the current one, for a PID that several programmes use:
// the packet's tag is then that programme's.
void change_user(tsan_ctx *tc, const dgram_info *dat);
