// The rules of ISO/IEC 13818-1, for hosts that ask for them (tsan_config::iso_rules).
//
// They take the place of the default road of a packet, not of its pieces: counters, alerts and
// trackers of tables are the same. What differs, clause by clause:
//
//   2.4.3.2  packets marked by transport_error_indicator are counted and used for nothing else;
//            scrambled ones (transport_scrambling_control) are counted, and their payload not read
//   2.4.3.3  continuity_counter: one repetition of a packet is none, any counter may follow a
//            discontinuity_indicator, and a packet without payload does not count
//   2.4.3.5  a discontinuity_indicator on the PCR PID begins a new time base: no interval reaches
//            across, and no time stamp of one base is held against the other
//   2.4.4    sections are gathered across packets and used when they are whole, undamaged and
//            current; programme_number 0 is the network PID; a programme no longer listed stands
//            still until it is listed again, whatever the PAT: nothing ends the process
//   2.4.4.9  the PCR is that of the PCR PID, a stream's or not; a PID that several programmes list
//            is each one's
//   2.7      clock values have 33 bits; their distance is the shorter way round
//
// A counter that begins again (max_zreset_time) is told by the programme's PCR and not by the
// clock on the wall. Each new time stamp is checked once.
//
// Whether a packet repeats the one before is told by the counter and a fingerprint of the payload:
// its first eight bytes, which plain packets keep as well, or, where a unit begins, its first 24,
// as units begin alike.
#pragma once

#include "tsanalyze/context.h"

#include <cstdio>

// Takes the current packet, which begins with the sync byte. Returns whether it was analysed.
bool take_by_standard(tsan_ctx *tc);

// Writes the part of the report for people that is about these rules.
void dump_standard(FILE *fp, const tsan_ctx *tc);
