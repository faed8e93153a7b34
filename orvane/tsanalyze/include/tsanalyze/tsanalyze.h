// The transport-stream analyzer engine.
//
// A host creates one context per source, hands it 188-byte transport-stream packets (ISO/IEC
// 13818-1, 2.4.3) one at a time and asks for reports. The engine follows the PAT and the PMTs it
// lists (2.4.4), watches continuity counters (2.4.3.3), PCR (2.4.3.5, 2.7.2) and PTS/DTS (2.4.3.7)
// of every listed stream, and raises alerts:
//
//   - for people, to the application log (g_log) at warning level, unless `no_rlog` is set;
//   - for machines, to the access log (g_access_log), when `access_log_alerts` is set;
//   - for the host itself, as records, when it has asked for them (tsan_set_alert_callback).
//
// The logs are those of <libtarnlink/log.h>. The host says where they go, with log_default or
// log_open_ex, before it creates its first context: a line for a log without a stream is dropped.
//
// Threads: a context belongs to one thread at a time. The logs, the lost-sync period and the time
// of the last idle notice are shared by all contexts of a process, without locks: contexts run in
// one thread, or the host guards them all by one lock.
//
// Ends: nothing in a packet makes the engine read outside of it, and no operation throws. A few
// conditions that leave nothing to analyse are invariants unless `iso_rules` is set: they end the
// process by abort, with the broken expression on standard error. They are a first PAT without
// programmes, a PAT that is emptied later, a first PAT that lists PID 0, a change of the PAT that
// leaves 32 programmes or more, and a PMT with PCR PID 0.
//
// Units: PCR, PTS and DTS are 90 kHz ticks; thresholds and deltas are milliseconds; packet numbers
// count from 1. Results are a tsan_status where nothing else is said: 0 is success; negative
// numbers are the engine's own failures; positive ones are system error numbers for bad settings.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

typedef struct config_setting_t config_setting_t; // a settings group of libconfig

enum {
    MAX_PMTS = 32,           // programmes of a source; more are dropped with an error line
    MAX_NSTREAMS = 64,       // entries of a PMT, read for elementary streams; more are not read
    MAX_STAG_LEN = 64,       // source tag, terminator included
    PKTIDX_LEN = 64,         // packet tag, terminator included
    MAX_PMT_TXT = 4096,      // bytes of a PMT's text snapshot
    TS_PACKET_SIZE = 188,    // bytes of a packet (13818-1, 2.4.3.2)
    D_MAX_NO_ANALYZE = 9000, // settings-file default of max_skipped_pkts (packets)
    D_MAX_DELTA_MS = 500,    // ... of max_pdts_delta_ms (ms)
    D_PCOUNT = 10000,        // ... of max_ndat_pcount (packets)
};

// What operations return.
enum tsan_status {
    TSAN_OK = 0,            // go on
    TSAN_REPORTED = 1,      // tsan_check_dump_stats: the period was over, reports are written
    TSAN_CANNOT_GO_ON = -1, // packet alignment is lost
    TSAN_IDLE = -16,        // no packet could be analysed for too long
    TSAN_NO_MEMORY = 12,    // ENOMEM
    TSAN_BAD_SETTING = 22,  // EINVAL
};

// Trace switches: they add informational lines and never change what is tracked or alerted.
typedef struct tracking_opt {
    bool sdt_ignore;  // SDT packets disregarded
    bool misc_ignore; // other packets disregarded
    bool pdts_update; // PTS/DTS updates
    bool pat_pmt_pkt; // PAT and PMT packets found
    bool pcr_update;  // PCR updates
    bool cc_track;    // continuity counters
    bool pmt_diff;    // PMT comparisons in detail
    bool pat_diff;    // PAT comparisons in detail
} tracking_opt;

// The engine's settings. A zero-filled record is a disabled analyzer; tsan_default_config makes one
// that checks.
typedef struct tsan_config {
    bool is_enabled;           // false: packets are counted and tables tracked, nothing is checked
    char source[MAX_STAG_LEN]; // source tag, shown in every message; must not be empty
    size_t max_skip_pkts;      // packets allowed before the first analysable one
    size_t max_pdts_delta;     // largest audio/video time-stamp distance (ms); 0: no check
    size_t max_pcr_delta;      // largest distance of a time stamp to the PCR (ms); 0: no check
    size_t pcr_freq_ms;        // largest PCR interval (ms; 100 by 13818-1, 2.7.2); 0: no check
    bool access_log_alerts;    // alerts to the access log too
    size_t dump_stats_period;  // period of tsan_check_dump_stats (seconds); 0: off
    size_t max_ndat_pcount;    // packets between checks for silent streams; 0: none
    bool cc_track;             // check continuity counters (13818-1, 2.4.3.3)
    int64_t cc_max_ms0_ms; // distance (ms) from which two unexpected zeros are a reset; 0: never
    tracking_opt trk;
    bool no_rlog;   // no alerts to the application log
    bool iso_rules; // judge by ISO/IEC 13818-1, where orvscan(1) tells the differences
} tsan_config;

// A context. tsan_init makes it, tsan_free ends it.
typedef struct tsan_ctx *tsan_t;

// ---- Settings

// Fills in settings for a host: every check, at 100 ms between PCRs, 500 ms between audio and video
// and 1000 ms between a time stamp and its PCR (the decoder's buffers hold no more than a second:
// 13818-1, 2.4.2); silent streams every 10000 packets; 9000 packets to begin; reports every
// minute where tsan_check_dump_stats is called; alerts to the application log alone; the source
// tag "TS". The program orvscan has defaults of its own.
void tsan_default_config(tsan_config *cfg);

// Reads the settings group of a settings file over `cfg`, keys that are absent as their defaults.
// Returns 0, or, after an error line, the setting_status or number_status of the failed look-up
// (<libtarnlink/config.h>, <libtarnlink/strops.h>); what was read before stays.
int tsan_load_config(config_setting_t *section, tsan_config *cfg);

// Applies one setting in words: "on", "enable", "off", "disable", or NAME=NUMBER with the names
// skipped_pkts, pdts_delta, pcr_delta, pcr_freq, max_zreset_time (ms), cc_track and iso. Other
// names are let pass. Returns TSAN_OK, TSAN_BAD_SETTING for what cannot be read or is negative, or
// TSAN_NO_MEMORY.
int tsan_cli_opt(const char *optstr, tsan_config *cfg);

// Sets the trace switches named in a text ("all" or any of sdt_i, misc_i, pdts_u, pat_pmt, pcr_u,
// cc_t, pmt_d, pat_d, anywhere in it). Always returns TSAN_OK.
int tsan_xtrack_opt(const char *optstr, tsan_config *cfg);

// Writes the settings to a stream.
void tsan_dump_config(FILE *stream, const char *title, const tsan_config *cfg);

// ---- Life cycle

// Creates a context with a copy of the settings. `source`, unless null, replaces the source tag (at
// most 63 characters). The context is the caller's, who ends it with tsan_free. Returns null when
// memory is short, with TSAN_NO_MEMORY in `*err` (may be null), which is not written otherwise.
tsan_t tsan_init(const char *source, const tsan_config *cfg, int *err);

// Destroys a context. Null is allowed. A context with an empty source tag is taken for one that was
// freed before: it is left alone, with a warning, and never freed.
void tsan_free(tsan_t t);

// ---- Packets

// Takes one packet of TS_PACKET_SIZE bytes, which stay the caller's and may lie anywhere; no
// pointer to them is kept. Returns TSAN_OK, TSAN_CANNOT_GO_ON when the packet does not start with
// the sync byte, or TSAN_IDLE when no packet could be analysed within max_skip_pkts packets.
int tsan_process(tsan_t t, const uint8_t *pkt);

// Ends an input segment (a datagram) of the programme of the latest packet, and raises CC-MLR when
// several of its streams lost the same number of packets in it.
void tsan_next_seg(tsan_t t);

// Reports that the host lost packet alignment: raises LOST-SYNC, in the access log whatever the
// settings. Losses are counted in periods of 2 seconds, those of all contexts of the process
// together. Returns TSAN_OK, or TSAN_CANNOT_GO_ON from the tenth loss within a period on: then for
// every context, and for as long as the process lives.
int tsan_alert_lostsync(tsan_t t);

// The number of the current packet, counted from 1 (0 before the first), and a way to set it for a
// host that moves within its input. Set to less than the number of the packet with the latest PCR,
// the packets since that one are counted below 0, modulo 2^64, until the programme's next PCR.
uint64_t tsan_get_pidx(tsan_t t);
void tsan_set_pidx(tsan_t t, uint64_t pidx);

// ---- Alerts as data

typedef enum tsan_alert_kind {
    TSAN_PAT_DIFF,      // the PAT lists other PMT PIDs
    TSAN_PMT_DIFF,      // a PMT reads differently
    TSAN_CC_BRK,        // a continuity counter is not the next one (13818-1, 2.4.3.3)
    TSAN_CC_RST,        // ... but 0, and the previous such 0 is long ago
    TSAN_CC_MLR,        // several streams lost equally many packets in one segment
    TSAN_PCR_FREQ,      // PCRs are too far apart (2.7.2)
    TSAN_PCR_DELTA,     // an audio time stamp is too far from the PCR
    TSAN_AV_DELTA0,     // ... less than 1 ms from the video's, and yet not equal
    TSAN_AV_DELTA_PLUS, // ... too far from the video's
    TSAN_PID_NDAT,      // a listed stream never carried a packet
    TSAN_LOST_SYNC,     // the host lost packet alignment
    TSAN_ALERT_KINDS,
} tsan_alert_kind;

// The values of an alert, one member for each group of kinds.
typedef union tsan_alert_values {
    struct {
        size_t programmes, added, deleted;
    } pat_diff;
    struct {
        size_t streams, entries; // analysed streams before, entries now
        uint32_t pcr_pid;        // now
    } pmt_diff;
    struct {
        uint64_t segment;
        int last, current; // counters
        int64_t ms;        // CC-RST: since the previous unexpected 0
    } cc;
    struct {
        uint64_t segment;
        int count; // losses beyond the first
    } mlr;
    struct {
        uint64_t old_pcr, new_pcr; // ticks
        uint64_t ms;
    } pcr_freq;
    struct {            // PCR-DELTA, AV-DELTA0, AV-DELTA+
        bool is_pts;    // or a DTS
        uint32_t pid;   // what it is held against: the PCR PID, or the video's
        uint64_t ticks; // ... its clock value
        uint64_t stamp; // the audio's (ticks)
        uint64_t ms;    // between them
    } delta;
    struct {
        size_t programme, stream; // the silent one, which need not be the packet's
    } ndat;
    struct {
        size_t count; // losses in the period
    } sync;
} tsan_alert_values;

// One alert: what the line for machines says.
typedef struct tsan_alert {
    tsan_alert_kind kind;
    const char *source; // source tag, valid during the call
    int programme;      // slot of the packet's programme; -1: none
    int stream;         // stream of that programme; -1: none
    uint64_t packet;    // number of the packet
    bool has_pcr;       // the programme had a PCR before the packet:
    uint64_t pcr;       // its base (ticks)
    uint64_t pcr_age;   // packets since
    uint32_t pid;       // what the alert is about: a PMT PID, a PCR PID or a stream's; 0: no PID
    tsan_alert_values u;
} tsan_alert;

// Is called for every alert, after its lines were written and it was counted. The record is the
// engine's and valid during the call, which may not use the context but for tsan_get_pidx, nor
// throw.
typedef void (*tsan_alert_callback)(void *opaque, const tsan_alert *alert);

// Sets the function that gets every alert of the context from now on, with `opaque`; null, as at
// first: none.
void tsan_set_alert_callback(tsan_t t, tsan_alert_callback callback, void *opaque);

// ---- Reports

// Reports every listed stream that has not carried a packet (PID-NDAT). To be called once at the
// end of the input.
void tsan_check_ndat(tsan_t t);

// Writes the report for people to a stream, which stays the caller's.
void tsan_dump_stats(FILE *fp, tsan_t t);

// Writes the STAT lines for machines to the access log.
void tsan_alog_stats(tsan_t t);

// Once dump_stats_period has passed: writes both reports and returns TSAN_REPORTED; else TSAN_OK.
// The first call only starts the period, unless tsan_dump_stats has done so. `fp` may be null for
// STAT lines alone; they are then repeated at every later call. The averages of the period go on
// until tsan_reset_local_stats.
int tsan_check_dump_stats(FILE *fp, tsan_t t);

// Begins a new period of the averages.
void tsan_reset_local_stats(tsan_t t);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
