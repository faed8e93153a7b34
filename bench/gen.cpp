// ts_gen KIND PACKETS OUT: writes a capture for measurements.
//
// A capture is a multiplex of sources, each of which sends a packet every so many ticks of 90 kHz;
// the packet due first comes first. The same arguments make the same bytes, and a shorter capture
// is the beginning of a longer one. With every check on, none but `alerts` raises an alert.

#include "support/capture.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <queue>
#include <utility>
#include <vector>

namespace {

constexpr uint64_t START = 900000;      // the first PCR; one of 0 would count as none
constexpr uint64_t DELAY = 18000;       // from a packet's arrival to its presentation: 200 ms
constexpr uint64_t FRAME = 3600;        // a picture: 40 ms
constexpr uint64_t AUDIO_PERIOD = 540;  // 167 packets a second
constexpr uint64_t UNIT_PACKETS = 16;   // packets of an audio or private-data PES
constexpr uint64_t TABLE_PERIOD = 9000; // 100 ms
constexpr size_t CHUNK = 10000;         // packets made before they are written
constexpr unsigned STUCK_CC = 5;        // never zero, which could count as a reset
constexpr unsigned NULL_PID = 0x1fff;
constexpr unsigned FIRST_PMT_PID = 0x20;
constexpr unsigned FIRST_STREAM_PID = 0x100;
constexpr unsigned PROGRAM_PIDS = 64; // PIDs set aside for the streams of a programme

// Periods are ticks from one packet of a source to its next.
struct kind {
    const char *name;
    unsigned programs;
    unsigned naudio; // streams of a programme beside the video
    unsigned ndata;
    uint64_t video_period;
    uint64_t data_period;
    uint64_t table_period; // of the PAT and of each PMT
    uint64_t null_period;  // 0: no null packets
    bool stuck_cc;         // all counters stand still
};

constexpr kind KINDS[] = {
    {"single", 1, 1, 1, 18, 9000, TABLE_PERIOD, 0, false},
    {"three", 3, 1, 1, 36, 9000, TABLE_PERIOD, 0, false},
    {"null", 1, 1, 1, 360, 9000, TABLE_PERIOD, 18, false}, // 9 of 10 packets are null
    // A PMT has to fit in one packet: 33 streams at most, 1,056 in all.
    {"big", 32, 16, 16, 90, AUDIO_PERIOD, TABLE_PERIOD, 0, false},
    {"psi10", 1, 1, 1, 18, 9000, 139, 0, false}, // a PAT and a PMT in 10 packets
    {"alerts", 1, 1, 1, 18, 9000, TABLE_PERIOD, 0, true},
};

enum class role { pat, pmt, video, audio, data, null };

struct source {
    role what;
    unsigned program;
    unsigned pid;
    uint64_t period;
    uint64_t unit = 1; // packets of a PES
    uint64_t count = 0;
};

unsigned first_pid(unsigned program) { return FIRST_STREAM_PID + program * PROGRAM_PIDS; }

// The sources, tables first: at the same moment the first in the list comes first.
std::vector<source> make_sources(const kind &k)
{
    std::vector<source> all{{role::pat, 0, 0, k.table_period}};
    for (unsigned p = 0; p < k.programs; ++p)
        all.push_back({role::pmt, p, FIRST_PMT_PID + p, k.table_period});
    for (unsigned p = 0; p < k.programs; ++p) {
        unsigned pid = first_pid(p);
        all.push_back({role::video, p, pid++, k.video_period, FRAME / k.video_period});
        for (unsigned i = 0; i < k.naudio; ++i)
            all.push_back({role::audio, p, pid++, AUDIO_PERIOD, UNIT_PACKETS});
        for (unsigned i = 0; i < k.ndata; ++i)
            all.push_back({role::data, p, pid++, k.data_period, UNIT_PACKETS});
    }
    if (k.null_period != 0)
        all.push_back({role::null, 0, NULL_PID, k.null_period});
    return all;
}

void add_pat(capture_builder *c, const kind &k)
{
    std::vector<pat_entry> entries;
    for (unsigned p = 0; p < k.programs; ++p)
        entries.push_back({p + 1, FIRST_PMT_PID + p});
    c->pat(entries);
}

void add_pmt(capture_builder *c, const kind &k, const source &s)
{
    unsigned pid = first_pid(s.program);
    pmt_fields fields{.program = s.program + 1, .pcr_pid = pid};
    fields.streams.push_back({0x1b, pid++, {}});
    for (unsigned i = 0; i < k.naudio; ++i)
        fields.streams.push_back({0x0f, pid++, {}});
    for (unsigned i = 0; i < k.ndata; ++i)
        fields.streams.push_back({0x06, pid++, {}});
    c->pmt(s.pid, fields);
}

// A packet of a stream. A picture's time stamps are multiples of 720 ticks apart from one another
// and 360 more from any sound's: never so near that it would be suspicious.
void add_stream_packet(capture_builder *c, const source &s, uint64_t now)
{
    if (s.count % s.unit == s.unit - 1) { // the end of a PES is padded
        c->packet(s.pid, {.adaptation = 40});
        return;
    }
    if (s.count % s.unit != 0) {
        c->payload(s.pid);
        return;
    }
    const uint64_t stamp = START + DELAY + s.count * s.period;
    if (s.what == role::video)
        c->pes(s.pid, {.pts = stamp + FRAME, .dts = stamp, .pcr = now});
    else if (s.what == role::audio)
        c->pes(s.pid, {.pts = stamp + 360, .stream_id = 0xc0});
    else
        c->pes(s.pid, {.pts = stamp, .stream_id = 0xbd});
}

void add_packet(capture_builder *c, const kind &k, const source &s, uint64_t now)
{
    c->set_cc(s.pid, k.stuck_cc ? STUCK_CC : static_cast<unsigned>(s.count & 15));
    switch (s.what) {
    case role::pat:
        add_pat(c, k);
        break;
    case role::pmt:
        add_pmt(c, k, s);
        break;
    case role::null:
        c->null();
        break;
    default:
        add_stream_packet(c, s, now);
    }
}

// Writes `npackets` packets. False when the file cannot be written.
bool generate(const kind &k, uint64_t npackets, FILE *out)
{
    std::vector<source> sources = make_sources(k);
    typedef std::pair<uint64_t, size_t> event; // when a source is due, and which
    std::priority_queue<event, std::vector<event>, std::greater<>> due;
    for (size_t i = 0; i < sources.size(); ++i) {
        const bool is_table = sources[i].what == role::pat || sources[i].what == role::pmt;
        due.emplace(is_table ? START : START + i * 7 % sources[i].period, i);
    }
    while (npackets > 0) {
        capture_builder chunk;
        for (; npackets > 0 && chunk.count() < CHUNK; --npackets) {
            const auto [now, i] = due.top();
            due.pop();
            add_packet(&chunk, k, sources[i], now);
            ++sources[i].count;
            due.emplace(now + sources[i].period, i);
        }
        const octets &bytes = chunk.bytes();
        if (fwrite(bytes.data(), 1, bytes.size(), out) != bytes.size())
            return false;
    }
    return true;
}

const kind *find_kind(const char *name)
{
    for (const kind &k : KINDS)
        if (strcmp(k.name, name) == 0)
            return &k;
    return nullptr;
}

int usage()
{
    fprintf(stderr, "Usage: ts_gen KIND PACKETS OUT\nKinds:");
    for (const kind &k : KINDS)
        fprintf(stderr, " %s", k.name);
    fputc('\n', stderr);
    return 2;
}

struct close_file {
    void operator()(FILE *fp) const { fclose(fp); }
};

} // namespace

int main(int argc, char *argv[])
{
    const kind *k = argc == 4 ? find_kind(argv[1]) : nullptr;
    if (k == nullptr)
        return usage();
    const std::unique_ptr<FILE, close_file> out(fopen(argv[3], "wb"));
    if (out == nullptr || !generate(*k, strtoull(argv[2], nullptr, 10), out.get()) ||
        fflush(out.get()) != 0) {
        perror(argv[3]);
        return 1;
    }
    return 0;
}
