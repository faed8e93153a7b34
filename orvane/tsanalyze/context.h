// Every record of the engine: the vocabulary its rooms share.
//
// Records are zero-filled unless a default says otherwise. Clock values are 90 kHz ticks, packet
// numbers count from 1.
//
// A message that begins with the name of an operation names the one whose rule it tells, as a
// literal where helpers raise it: readers of logs know these names, and they outlive the helpers.
#pragma once

#include "misc/aggr.h"
#include "misc/ctxt.h"
#include "tsanalyze/psi.h"
#include "tsanalyze/sections.h"
#include "tsanalyze/ts.h"
#include "tsanalyze/tsanalyze.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <sys/types.h>

static_assert(sizeof(long) == sizeof(uint64_t)); // printed values of 64 bits are "%lu"

// What the tag of a packet is made of. The text itself is written only when a line needs it
// (tag_text).
struct packet_tag {
    uint64_t pkt_idx;  // number of the packet
    uint64_t last_pcr; // the programme's last PCR before this packet
    uint64_t pcr_age;  // packets since it
    int16_t ipg;
    int16_t istm;
    bool is_pat;
    bool is_pmt;
    bool has_pcr; // the programme had a PCR
};

// Continuity counter of a stream.
struct cc_info {
    int32_t value;   // last counter, -1 before the first (last_cc)
    timespec ms0_tm; // monotonic time of the last unexpected zero; all zero: none
};

// Packet counters of a programme: processed and analysed, of all its streams and by class.
struct alignas(64) sa_stats {
    uint64_t pcount;
    uint64_t acount;
    uint64_t v_pcount;
    uint64_t v_acount;
    uint64_t a_pcount;
    uint64_t a_acount;
    uint64_t s_pcount;
    uint64_t s_acount;
};

struct program_info;
struct stream_info;

// What the PID of a packet means. One such record stands with each stream and each programme's PMT,
// and one each for the PAT, for the SDT and for a PID that means nothing.
struct dgram_info {
    int16_t ipg = -1;  // programme slot, -1: none
    int16_t istm = -1; // stream of that programme, -1: none
    bool is_pat = false;
    bool is_pmt = false;
    program_info *program = nullptr;
    stream_info *stream = nullptr;
};

// Analysed streams fall in three classes.
enum stream_class : uint8_t { CLASS_VIDEO, CLASS_AUDIO, CLASS_DATA };

// One elementary stream. What every packet touches stands in the first cache line.
struct alignas(64) stream_info {
    dgram_info dat; // what the stream's PID means
    uint32_t pid;
    uint32_t
        next_plain; // header of the stream's next packet if that is plain; 0: take any as it is
    char stype;     // 'V' video, 'A' audio, 'S' private-data PES
    stream_class sclass;
    bool pts_updated; // a new PTS has arrived and was not checked yet
    bool dts_updated;
    uint64_t pcount;      // packets processed
    uint64_t acount;      // packets analysed
    uint64_t fingerprint; // of the last packet with payload
    cc_info cc;
    uint64_t last_pts;
    uint64_t last_dts;
    uint64_t pts_pktnum; // packet that carried last_pts
    uint64_t dts_pktnum;
    uint8_t scode; // stream_type of the PMT

    // By the standard's rules:
    bool was_repeated;           // the last packet was a repetition
    uint32_t pts_base;           // time base of last_pts
    uint32_t dts_base;           // ... of last_dts
    const dgram_info *next_user; // what the PID means to the next programme that lists it
};

// Alert counters of a programme.
struct pg_alert_count {
    uint64_t av_delta0;
    uint64_t av_deltaplus;
    uint64_t pcr_delta;
    uint64_t pcr_freq;
    uint64_t cc_break;
    uint64_t cc_reset;
    uint64_t pmt_diff;
    uint64_t pid_ndat;
};

// Alert counters of a source.
struct gen_alert_count {
    uint64_t lost_sync;
    uint64_t pat_diff;
    uint64_t cc_mlr;
};

// One programme.
struct program_info {
    sa_stats stat;
    uint64_t last_pcr;    // last PCR seen
    uint64_t pcr_pktnum;  // packet that carried it
    uint32_t pcr_pid;     // PCR PID of the PMT
    bool got_pcr;         // a PCR was seen
    uint8_t skip_pmt_out; // wraps; the PMT lines of the STAT report are written when it is 0
    size_t nstreams;
    ssize_t ref_idx = -1;          // the reference video stream; -1: none
    ssize_t pcr_idx = -1;          // the stream that carries the PCR; -1: none
    uint64_t last_seg_idx;         // input segments ended
    stream_info stm[MAX_NSTREAMS]; // in PMT order
    dgram_info dat_pmt;            // what the programme's PMT PID means

    packet_tag pcr_ptag;   // tag of the packet that carried last_pcr
    uint32_t curr_pmt_pid; // PID of the PMT that last added streams
    ctxt_spec txt_pmt;     // text snapshot of the PMT
    section_image quiet_pmt;
    pg_alert_count alert;
    aggr_val av_pdts_delta; // audio/video time-stamp distances (ms)
    aggr_val av_pcr_delta;  // distances of time stamps to the PCR (ms)
    aggr_val av_pcr_freq;   // PCR intervals (ms)

    // By the standard's rules:
    uint32_t number;             // programme_number
    bool is_unlisted;            // the PAT does not list it any more
    bool awaits_base;            // the next PCR begins a new time base
    uint32_t time_base;          // number of the time base of last_pcr
    dgram_info dat_pcr;          // what a PCR PID means that is no stream's
    const dgram_info *next_user; // what that PID means to the next programme that lists it
};

// The latest continuity alert of the source, for the correlation of losses within a segment.
struct cc_alert_ctx {
    uint64_t seg_idx; // segment of the alert
    uint32_t pid;
    int32_t delta; // packets lost, 0 to 15
    int32_t nmlr; // correlated losses of the segment; -1: a good counter was seen, no more counting
};

// Which shortcuts of the road a context takes (shortcuts.h); by itself it takes none.
struct road_shortcuts {
    bool plain = false;     // plain packets
    bool nothing = false;   // packets that mean nothing to anyone
    bool quiet_pat = false; // tables that changed nothing
    bool quiet_pmt = false;
    bool late_tag = false; // a tag is taken down when it is about to change, not for every packet
    ts_header special_bits = 0; // of the header: a packet with one of them takes no shortcut
    ts_header nothing_bits =
        1; // how the header of a packet that means nothing begins; 1: none does
};

// What only the standard's rules need (iso.h).
struct iso_state {
    bool has_pat;                  // a complete PAT has come
    bool lacked_memory;            // the latest PMT could not be used
    uint64_t damaged;              // packets marked by transport_error_indicator
    uint64_t scrambled[PID_COUNT]; // packets by PID
    section_gatherer pat_sections;
    section_gatherer pmt_sections[MAX_PMTS]; // of a PMT PID, by its first programme
    section_image pmt_bytes[MAX_PMTS];       // the latest PMT of a programme
    section_refusals refused[PID_COUNT];     // of PMT PIDs listed no more
    uint64_t ndat_base[MAX_PMTS]; // packets of a programme when silent streams were looked for
};

struct tsan_ctx {
    tsan_config cfg;
    tsan_alert_callback alert_callback; // of the host; null: it wants no records
    void *alert_opaque;
    const dgram_info *dat; // classification of the current packet; stays behind it
    ts_header header;      // the packet's header and bytes, while it walks the whole road
    const uint8_t *pkt;
    bool is_attended; // nothing is to be done before a packet is looked at (attend)
    road_shortcuts shortcuts;
    uint64_t last_pkt_idx; // number of the current packet; a host may set it
    uint64_t ptotal;       // packets taken
    uint64_t atotal;       // packets analysed
    uint64_t ndat_pcount; // processed packets at which silent streams are looked for; 0: not at all
    cc_alert_ctx last_cca;
    timespec start_tm; // wall clock at the first packet
    size_t nprogs;
    uint64_t pre_skipped; // packets before the first analysed one
    gen_alert_count gac;
    time_t last_stats_dumped;
    uint32_t pmt_pid[MAX_PMTS];         // in PAT order, ended by a 0 when shorter
    program_info pg[MAX_PMTS];          // slot i belongs to pmt_pid[i]
    psi_block pat;                      // the first complete PAT
    std::unique_ptr<psi_block> new_pat; // a later one being gathered
    section_image quiet_pat;
    packet_tag ptag;  // of the packet with the total number ptag_at
    uint64_t ptag_at; // not the current one: its tag is what the context's present state gives
    dgram_info dat_pat{.is_pat = true};
    dgram_info dat_sdt;
    dgram_info dat_none;                 // a PID that means nothing
    const dgram_info *dat_of[PID_COUNT]; // by PID; rebuilt when PAT or PMT change
    std::unique_ptr<iso_state> iso;      // null: the default rules
};

// The programme of the current packet.
inline program_info *prog(const tsan_ctx *tc) { return tc->dat->program; }
