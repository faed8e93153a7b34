// Transport-stream clock arithmetic.
//
// Clock values are unsigned 64-bit counts of 90 kHz ticks: the PCR base (ISO/IEC 13818-1, 2.4.3.5),
// PTS and DTS (2.4.3.7). The 9-bit 27 MHz extension of a PCR is never used. Nothing here keeps
// state; the distances warn through the logger and belong to its thread.
#pragma once

#include <stdint.h>

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

enum {
    MPEG_TS_SYNC = 0x47, // first byte of a packet (13818-1, 2.4.3.3)
    PCR_ONE_SEC = 90000, // ticks
    MAX_PCR_GAP = 45000, // ticks: half a second
};

static const uint64_t P2_33 = 8589934592; // ticks: period of the 33-bit clock values

enum pcr_delta_flags {
    F_ABRT_PCR = 1, // a backward step ends the process
    F_MAX_PCRD = 2, // warn about a forward gap above MAX_PCR_GAP
};

// Whether a 188-byte packet carries a PCR: adaptation field present and not empty, PCR flag set
// (13818-1, 2.4.3.4).
static inline int ts_has_pcr(const uint8_t *pkt)
{
    return (pkt[3] & 0x20) != 0 && pkt[4] != 0 && (pkt[5] & 0x10) != 0 ? 1 : 0;
}

// The PCR base of a packet for which ts_has_pcr holds, in ticks.
static inline uint64_t ts_pcr_base(const uint8_t *pkt)
{
    const uint64_t b[] = {pkt[6], pkt[7], pkt[8], pkt[9], pkt[10]};
    return b[0] << 25 | b[1] << 17 | b[2] << 9 | b[3] << 1 | b[4] >> 7;
}

// Distance from `first` to `last` in ticks. A step across the 33-bit wrap of less than half a
// second counts as forward; any other backward step is warned about and gives 0. With `first` 0
// nothing is checked and the result is `last`. `flags`: pcr_delta_flags.
uint64_t calc_pcr_delta(uint64_t first, uint64_t last, int flags);
uint64_t ts_pcr_delta(uint64_t first, uint64_t last); // without flags

// The same in milliseconds (ticks / 90), truncated to 32 bits.
uint32_t pcr_delta_ms(uint64_t first, uint64_t last);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
