// The standard's rules beside the default ones, on the same captures.

#include "engine/engine.h"
#include "support/lines.h"

#include <gmock/gmock.h>

using namespace testing;

namespace {

constexpr uint64_t WRAP = uint64_t{1} << 33;

tsan_config by(bool iso)
{
    tsan_config cfg = every_check();
    cfg.iso_rules = iso;
    return cfg;
}

std::string alerts_of(const capture_builder &c, bool iso)
{
    engine e(by(iso));
    e.c = c;
    return e.alerts();
}

octets damaged(octets section)
{
    section.back() ^= 1;
    return section;
}

// The same PMT as one_program's, so long that it takes several packets.
pmt_fields long_pmt(unsigned version = 0)
{
    pmt_fields pmt{.pcr_pid = 0x101, .version = version, .streams = {{0x1b, 0x101}}};
    for (unsigned i = 0; i < 20; ++i)
        pmt.streams.push_back({0x0f, 0x110 + i, {0x0a, 4, 'e', 'n', 'g', 0}});
    return pmt;
}

} // namespace

TEST(iso, alerts_where_the_rules_differ)
{
    const struct {
        const char *what;
        void (*add)(capture_builder *);
        const char *alerts, *iso_alerts;
    } cases[] = {
        {"one repetition",
         [](capture_builder *c) {
             c->payload(0x101);
             c->raw({c->at(c->count() - 1), c->at(c->count() - 1) + PKT_SIZE});
             c->payload(0x101);
         },
         "ALERT CC-BRK src 257 0 0 0 0:0[4]\n", ""},
        {"a second repetition",
         [](capture_builder *c) {
             c->payload(0x101, 2);
             for (int i = 0; i < 2; ++i)
                 c->raw({c->at(c->count() - 1), c->at(c->count() - 1) + PKT_SIZE});
             c->payload(0x101);
         },
         "ALERT CC-BRK src 257 0 1 1 0:0[5]\nALERT CC-BRK src 257 0 1 1 0:0[6]\n",
         "ALERT CC-BRK src 257 0 1 1 0:0[6]\n"},
        {"sixteen packets lost",
         [](capture_builder *c) {
             c->packet(0x101, {.payload = {1}});
             c->skip_cc(0x101, 15);
             c->packet(0x101, {.payload = {2}});
         },
         "ALERT CC-BRK src 257 0 0 0 0:0[4]\n", "ALERT CC-BRK src 257 0 0 0 0:0[4]\n"},
        {"an announced discontinuity",
         [](capture_builder *c) {
             c->payload(0x101);
             c->skip_cc(0x101, 5);
             c->packet(0x101, {.discontinuity = true});
             c->payload(0x101);
         },
         "ALERT CC-BRK src 257 0 0 6 0:0[4]\n", ""},
        {"a counter that moves without payload",
         [](capture_builder *c) {
             c->payload(0x101);
             c->packet(0x101, {.has_payload = false});
             c->skip_cc(0x101);
             c->packet(0x101, {.has_payload = false});
             c->payload(0x101);
         },
         "ALERT CC-BRK src 257 0 0 2 0:0[6]\n", "ALERT CC-BRK src 257 0 0 1 0:0[5]\n"},
        {"a damaged packet",
         [](capture_builder *c) {
             c->pcr(0x101, 900000);
             c->packet(0x101, {.damaged = true, .pcr = 909000});
             c->payload(0x101);
         },
         "ALERT PCR-FREQ src 257 900000 909000 100 [0:0[4]:(pcr=900000)+1]\n",
         "ALERT CC-BRK src 257 0 15 1 0:0[5]:(pcr=900000)+2\n"},
        {"a PCR on a PID of its own",
         [](capture_builder *c) {
             c->pmt(0x100, {.pcr_pid = 0x1ff, .version = 1, .streams = {{0x1b, 0x101}}});
             c->pcr(0x1ff, 900000);
             c->pcr(0x1ff, 909000);
         },
         "ALERT PMT-DIFF src 256 3 1 511 0:M[3]\n",
         "ALERT PMT-DIFF src 256 3 1 511 0:M[3]\n"
         "ALERT PCR-FREQ src 511 900000 909000 100 [0:-1[5]:(pcr=900000)+1]\n"},
        {"a PCR on the PID of the PMT",
         [](capture_builder *c) {
             c->pmt(0x100, {.pcr_pid = 0x100, .version = 1, .streams = {{0x1b, 0x101}}});
             c->pcr(0x100, 900000);
             c->pcr(0x100, 909000);
         },
         "ALERT PMT-DIFF src 256 3 1 256 0:M[3]\n",
         "ALERT PMT-DIFF src 256 3 1 256 0:M[3]\n"
         "ALERT PCR-FREQ src 256 900000 909000 100 [0:M[5]:(pcr=900000)+1]\n"},
        {"a PCR that steps back, and one that wraps",
         [](capture_builder *c) {
             for (const uint64_t pcr :
                  {uint64_t{900000}, uint64_t{896400}, WRAP - 1800, uint64_t{0}, uint64_t{1800}})
                 c->packet(0x101, {.discontinuity = pcr == WRAP - 1800, .pcr = pcr});
         },
         "ALERT PCR-FREQ src 257 896400 8589932792 95433737 [0:0[5]:(pcr=896400)+1]\n",
         "ALERT PCR-FREQ src 257 900000 896400 40 [0:0[4]:(pcr=900000)+1]\n"},
        {"an audio stamp on the other side of the wrap",
         [](capture_builder *c) {
             c->pcr(0x101, WRAP - 9000);
             c->pes(0x101, {.pts = WRAP - 900});
             c->pes(0x102, {.pts = 900});
         },
         "ALERT PCR-DELTA src pts 257 8589925592 258 900 95443607 [0:1[5]:(pcr=8589925592)+2]\n"
         "ALERT AV-DELTA+ src pts 257 8589933692 258 900 95443697 [0:1[5]:(pcr=8589925592)+2]\n",
         ""},
        {"an audio stamp of 0",
         [](capture_builder *c) {
             c->pcr(0x101, 90000);
             c->pes(0x102, {.pts = 0});
         },
         "", "ALERT PCR-DELTA src pts 257 90000 258 0 1000 [0:1[4]:(pcr=90000)+1]\n"},
        {"padding instead of a video stamp",
         [](capture_builder *c) {
             c->packet(0x101, {.unit_start = true, .payload = {0, 0, 1, 0xbe, 0, 0}});
             c->pes(0x102, {.pts = 90000});
         },
         "ALERT AV-DELTA+ src pts 257 8589934591 258 90000 95442717 [0:1[4]]\n", ""},
        {"stamps of two time bases",
         [](capture_builder *c) {
             c->pcr(0x101, 900000);
             c->pes(0x101, {.pts = 909000});
             c->packet(0x101, {.discontinuity = true, .pcr = 90000000});
             c->pes(0x102, {.pts = 90009000});
         },
         "ALERT PCR-FREQ src 257 900000 90000000 990000 [0:0[5]:(pcr=900000)+2]\n"
         "ALERT AV-DELTA+ src pts 257 909000 258 90009000 990000 [0:1[6]:(pcr=90000000)+1]\n",
         ""},
        {"a splice that is not announced",
         [](capture_builder *c) {
             c->pcr(0x101, 90000000);
             c->pcr(0x101, 900000);
         },
         "", "ALERT PCR-FREQ src 257 90000000 900000 990000 [0:0[4]:(pcr=90000000)+1]\n"},
        {"audio as private data",
         [](capture_builder *c) {
             c->pmt(0x100, {.pcr_pid = 0x101,
                            .version = 1,
                            .streams = {{0x1b, 0x101}, {0x06, 0x102, {0x6a, 1, 0}}}});
             c->pcr(0x101, 900000);
             c->pes(0x102, {.pts = 990000});
             c->payload(0x102, 2);
         },
         "ALERT PMT-DIFF src 256 3 2 257 0:M[3]\n",
         "ALERT PMT-DIFF src 256 3 2 257 0:M[3]\n"
         "ALERT PCR-DELTA src pts 257 900000 258 990000 1000 [0:1[5]:(pcr=900000)+1]\n"},
        {"a PID of two programmes",
         [](capture_builder *c) {
             c->pat({{1, 0x100}, {2, 0x200}}, {.version = 1});
             c->pmt(0x200, {.program = 2, .pcr_pid = 0x101, .streams = {{0x0f, 0x102}}});
             c->pcr(0x101, 900000);
             c->pes(0x102, {.pts = 990000});
             c->skip_cc(0x102);
             c->payload(0x102);
         },
         "ALERT PAT-DIFF src 0 2 1 0 PAT[3]\n"
         "ALERT PCR-DELTA src pts 257 900000 258 990000 1000 [0:1[6]:(pcr=900000)+1]\n"
         "ALERT CC-BRK src 258 0 0 2 0:1[7]:(pcr=900000)+2\n"
         "ALERT PCR-DELTA src pts 257 900000 258 990000 1000 [0:1[7]:(pcr=900000)+2]\n",
         "ALERT PAT-DIFF src 0 2 1 0 PAT[3]\n"
         "ALERT PCR-DELTA src pts 257 900000 258 990000 1000 [0:1[6]:(pcr=900000)+1]\n"
         "ALERT PCR-DELTA src pts 257 900000 258 990000 1000 [1:0[6]:(pcr=900000)+1]\n"
         "ALERT CC-BRK src 258 0 0 2 0:1[7]:(pcr=900000)+2\n"},
        {"a PID of two programmes, one of which goes",
         [](capture_builder *c) {
             c->pat({{1, 0x100}, {2, 0x200}}, {.version = 1});
             c->pmt(0x200, {.program = 2, .pcr_pid = 0x104, .streams = {{0x1b, 0x104}}});
             c->payload(0x104);
             c->pmt(0x100, {.pcr_pid = 0x101, .version = 1, .streams = {{0x1b, 0x104}}});
             c->payload(0x104, 2);
             c->pat({{2, 0x200}}, {.version = 2});
             c->payload(0x104);
         },
         "ALERT PAT-DIFF src 0 2 1 0 PAT[3]\nALERT PMT-DIFF src 256 3 1 257 0:M[6]\n"
         "ALERT PAT-DIFF src 0 1 0 1 PAT[9]\n",
         "ALERT PAT-DIFF src 0 2 1 0 PAT[3]\nALERT PMT-DIFF src 256 3 1 257 0:M[6]\n"
         "ALERT PAT-DIFF src 0 1 0 1 PAT[9]\n"},
    };
    for (const auto &test : cases) {
        capture_builder c;
        one_program(&c);
        test.add(&c);
        EXPECT_EQ(alerts_of(c, false), test.alerts) << test.what;
        EXPECT_EQ(alerts_of(c, true), test.iso_alerts) << test.what;
    }
}

TEST(iso, tables_are_used_when_whole_and_true)
{
    engine e(by(true));
    e.c.sections(0, {make_pat_section({{0, 0x10}, {1, 0x100}})});
    for (int i = 0; i < 3; ++i) // by the default rules each repetition differs
        e.c.sections(0x100, {make_pmt_section(long_pmt())});
    const octets other = make_pmt_section({.program = 7, .pcr_pid = 0x300});
    const octets next = make_pmt_section({.pcr_pid = 0x301, .is_current = false});
    e.c.sections(0x100, {other, next, damaged(make_pmt_section(long_pmt(1)))});
    e.c.sections(0, {damaged(make_pat_section({{1, 0x200}}, {.version = 1}))});
    e.c.packet(0, {.unit_start = true, .damaged = true, .payload = {0}});
    e.c.packet(0x100, {.scrambled = true});
    EXPECT_EQ(e.alerts(), "");
    EXPECT_EQ(e.t->pg[0].nstreams, 21u);
    EXPECT_EQ(e.t->nprogs, 1u);
    pmt_fields changed = long_pmt();
    changed.streams.back().type = 0x03; // in what a snapshot may have cut off
    e.c.sections(0x100, {make_pmt_section(changed)});
    EXPECT_EQ(lines_with(e.alerts(), "PMT-DIFF src 256 21 21 257 0:M[").size(), 1u);
}

TEST(iso, streams_are_classed_by_descriptors_too)
{
    const octets hdmv{5, 4, 'H', 'D', 'M', 'V'}, eng{0x0a, 4, 'e', 'n', 'g', 0};
    octets late = eng;
    late.insert(late.end(), {0x7a, 1, 0});
    const auto classes = [](const pmt_fields &pmt) {
        engine e(by(true));
        e.c.pat({{1, 0x100}});
        e.c.sections(0x100, {make_pmt_section(pmt)});
        e.feed();
        std::string letters;
        for (const stream_info &si : std::span(e.t->pg[0].stm, e.t->pg[0].nstreams))
            letters += si.stype;
        return letters;
    };
    const std::vector<es_entry> streams{{0x06, 0x101, eng},
                                        {0x06, 0x102, late},
                                        {0x06, 0x103, {0x7f, 1, 0x15}},
                                        {0x06, 0x104, {0x7f, 0}},
                                        {0x06, 0x105, {0x7f, 1, 2}},
                                        {0x2d, 0x106},
                                        {0x33, 0x107},
                                        {0x80, 0x108},
                                        {0x80, 0x109, hdmv},
                                        {0xa2, 0x10a, {5, 2, 'H', 'D'}}};
    EXPECT_EQ(classes({.streams = streams}), "SAASSAVA");
    EXPECT_EQ(classes({.descriptors = hdmv, .streams = streams}), "SAASSAVAAA");
}

TEST(iso, no_capture_ends_the_process)
{
    engine e(by(true));
    e.c.pat({});
    e.c.pat({});
    e.c.pat({{1, 0}, {2, 0x1fff}}, {.version = 1});
    e.c.pat({{1, 0x100}}, {.version = 2});
    for (const unsigned pcr_pid : {0U, 0x1fffU})
        e.c.pmt(0x100, {.pcr_pid = pcr_pid, .streams = {{0x1b, 0x101}}});
    e.c.payload(0x101, 3);
    e.c.pat({}, {.version = 3}); // what is not listed stands still
    e.c.payload(0x101, 2);
    e.c.pat({}, {.version = 3});
    e.feed();
    EXPECT_EQ(e.t->pg[0].stm[0].pcount, 3u);
    e.c.pat({{1, 0x100}}, {.version = 4});
    e.c.payload(0x101, 3);
    EXPECT_EQ(e.alerts(), "ALERT PAT-DIFF src 0 1 1 0 PAT[4]\n"
                          "ALERT PMT-DIFF src 256 1 1 8191 0:M[6]\n"
                          "ALERT PAT-DIFF src 0 0 0 1 PAT[10]\n"
                          "ALERT PAT-DIFF src 0 1 1 0 PAT[14]\n");
    EXPECT_EQ(e.t->pg[0].stm[0].pcount, 6u);

    std::vector<pat_entry> many;
    for (unsigned i = 0; i < 40; ++i)
        many.push_back({i + 1, 0x400 + i});
    e.c.pat(many, {.version = 5});
    EXPECT_EQ(e.alerts(), "ALERT PAT-DIFF src 0 32 32 1 PAT[18]\n");
    EXPECT_THAT(e.log(), HasSubstr("process_PAT: [src] too many programs: 8 over 32 dropped"));
    // The last one that there is room for takes the place of the one that went.
    e.c.pmt(0x41f, {.program = 32, .pcr_pid = 0x501, .streams = {{0x1b, 0x501}}});
    e.c.payload(0x501);
    e.feed();
    EXPECT_EQ(e.t->pg[0].stat.pcount, 1u);
}

TEST(iso, resets_are_told_by_the_pcr)
{
    engine e(by(true));
    one_program(&e.c);
    const auto zero = [&e] {
        e.c.set_cc(0x102, 9);
        e.c.payload(0x102);
        e.c.set_cc(0x102, 0);
        e.c.payload(0x102);
        return lines_with(e.alerts(), " 9 0 ").at(0);
    };
    e.c.payload(0x102);
    EXPECT_THAT(zero(), StartsWith("ALERT CC-BRK")); // no PCR yet
    e.c.pcr(0x101, WRAP - 900);
    EXPECT_THAT(zero(), StartsWith("ALERT CC-BRK"));
    g_now.tv_sec += 10; // the clock on the wall plays no part
    EXPECT_THAT(zero(), StartsWith("ALERT CC-BRK"));
    e.c.pcr(0x101, 1800);
    EXPECT_THAT(zero(), StartsWith("ALERT CC-RST src 258 0 9 0 30 "));
    e.c.packet(0x101, {.discontinuity = true, .pcr = 900000});
    EXPECT_THAT(zero(), StartsWith("ALERT CC-BRK")); // of another time base
}

TEST(iso, the_report_tells_what_was_measured_and_why_not)
{
    engine e(by(true));
    e.c.pat({{1, 0x100}, {2, 0x200}});
    e.c.pmt(0x100, {.pcr_pid = 0x101, .streams = {{0x1b, 0x101}, {0x0f, 0x102}}});
    e.c.sections(0x200, {damaged(make_pmt_section({.program = 2, .pcr_pid = 0x201}))});
    for (const uint64_t pcr : {900000U, 901800U, 905490U})
        e.c.pcr(0x101, pcr);
    e.c.pes(0x101, {.pts = 945000});
    e.c.pes(0x102, {.pts = 945090});
    e.c.packet(0x102, {.damaged = true});
    e.c.packet(0x102, {.scrambled = true});
    e.feed();
    char *text = nullptr;
    size_t size = 0;
    FILE *fp = open_memstream(&text, &size);
    tsan_dump_stats(fp, e.t);
    fclose(fp);
    const std::string report(text, size);
    free(text);
    EXPECT_THAT(report, EndsWith(R"(	ISO/IEC 13818-1:
		damaged packets:       1
		scrambled packets:     1
			pid258: 1
		sections refused:      1
			pid512: CRC 1, incomplete 0, length 0

	---- PRG(0): program 1 ----
		PCR intervals:         count=2 min=20 mean=30.50 max=41 (ms)
		PCR distances:         count=1 min=440 mean=440.00 max=440 (ms)
		A/V distances:         count=1 min=1 mean=1.00 max=1 (ms)
	---- PRG(1): program 2 ----
		PCR intervals:         not measured (no PMT)
		PCR distances:         not measured (no PMT)
		A/V distances:         not measured (no PMT)
	------------------------------------------
tsan_stats END
)"));
}
