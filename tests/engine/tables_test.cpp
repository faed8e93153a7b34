// PAT and PMT tracking, on tables as they should be and as they should not.

#include "engine/engine.h"
#include "support/lines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;
using testing::Not;

namespace {

std::vector<unsigned> pmt_pids(const engine &e)
{
    return {e.t->pmt_pid, e.t->pmt_pid + e.t->nprogs};
}

std::string snapshot(const engine &e)
{
    const ctxt_spec &s = e.t->pg[0].txt_pmt;
    return {s.buf.get(), static_cast<size_t>(s.textlen)};
}

std::vector<pat_entry> programs(unsigned count, unsigned first_pid)
{
    std::vector<pat_entry> list;
    for (unsigned i = 0; i < count; ++i)
        list.push_back({i + 1, first_pid + i});
    return list;
}

} // namespace

TEST(tables, a_pat_in_two_sections_counts_once_it_is_complete)
{
    engine e;
    e.c.pat({{2, 0x200}}, {.section = 1, .last_section = 1});
    e.feed();
    EXPECT_EQ(e.t->nprogs, 0u);
    e.c.pat({{0, 0x10}, {1, 0x100}}, {.section = 0, .last_section = 1});
    e.feed();
    EXPECT_EQ(pmt_pids(e), (std::vector<unsigned>{0x10, 0x100, 0x200}));
}

TEST(tables, a_changed_pat_is_merged_and_reported_once)
{
    engine e;
    e.c.pat({{1, 0x100}, {2, 0x200}, {3, 0x300}});
    e.c.pmt(0x200, {.pcr_pid = 0x201, .streams = {{0x1b, 0x201}}});
    e.c.pmt(0x300, {.pcr_pid = 0x301, .streams = {{0x0f, 0x301}}});
    e.c.pat({{1, 0x100}, {2, 0x200}, {3, 0x300}});
    e.c.pat({{1, 0x100}, {2, 0x200}, {3, 0x300}}, {.version = 1});
    EXPECT_EQ(e.log(), "");
    for (int i = 0; i < 3; ++i)
        e.c.pat({{1, 0x100}, {3, 0x300}, {4, 0x400}}, {.version = 2});
    EXPECT_EQ(e.log(), "(WRN)  [src] pid1024 ADDED in new PAT\n"
                       "(WRN)  [src] pid512 MISSING in new PAT\n"
                       "(WRN)  ALERT PAT-DIFF [src] PMTs added/deleted: 1/1 progs=3 at PAT[6]\n");
    EXPECT_EQ(e.alerts(), "ALERT PAT-DIFF src 0 3 1 1 PAT[6]\n");
    EXPECT_EQ(pmt_pids(e), (std::vector<unsigned>{0x100, 0x300, 0x400}));
    EXPECT_EQ(e.t->new_pat, nullptr);
    // Records stay where they are: 0x300 has moved to the record that was 0x200's.
    EXPECT_EQ(e.t->pg[1].stm[0].pid, 0x201u);
    e.c.pmt(0x300, {.pcr_pid = 0x301, .streams = {{0x0f, 0x301}}});
    EXPECT_THAT(e.log(), HasSubstr("ALERT PMT-DIFF [src] track-count: 1/1 pid=768 pcr-pid=769"));
}

TEST(tables, programs_have_their_limits)
{
    engine e;
    e.c.pat(programs(20, 0x100), {.section = 0, .last_section = 1});
    e.c.pat(programs(20, 0x200), {.section = 1, .last_section = 1});
    EXPECT_THAT(e.log(), HasSubstr("too many programs: 8 over 32 dropped"));
    EXPECT_EQ(e.t->nprogs, 32u);
    e.c.pat(programs(40, 0x300), {.version = 1}); // 32 go, 32 of the 40 come
    EXPECT_DEATH(e.feed(), "pat.cpp: merge_PATs: invariant `tc->nprogs < MAX_PMTS' broken");
}

TEST(tables, what_leaves_nothing_to_analyse_ends_the_process)
{
    const struct {
        void (*make)(capture_builder *);
        const char *broken;
    } cases[] = {
        {[](capture_builder *c) { c->pat({}); }, "process_PAT: invariant `tc->nprogs' broken"},
        {[](capture_builder *c) {
             c->pat({{1, 0}});
         },
         "process_PAT: invariant `tc->pmt_pid.tc->nprogs.' broken"},
        {[](capture_builder *c) {
             c->pat({{1, 0x100}});
             c->pmt(0x100, {.pcr_pid = 0});
         },
         "process_PMT: invariant `prog.tc.->pcr_pid' broken"},
    };
    for (const auto &test : cases) {
        engine e;
        test.make(&e.c);
        EXPECT_DEATH(e.feed(), test.broken);
    }
}

TEST(tables, streams_that_stay_keep_their_counters)
{
    engine e(every_check(), INFO_level);
    one_program(&e.c);
    EXPECT_THAT(e.log(), HasSubstr("(INF)  Added 3 streams from PMT (pid256) at 0:M[2]\n"));
    EXPECT_EQ(e.t->pg[0].pcr_idx, 0);
    EXPECT_EQ(e.t->pg[0].ref_idx, 0);
    e.c.payload(0x101, 3);
    e.c.payload(0x102, 2);
    e.c.pmt(0x100, {.pcr_pid = 0x1ff, .streams = {{0x05, 0x104}, {0x0f, 0x102}, {0x02, 0x105}}});
    EXPECT_THAT(e.log(), HasSubstr("(WRN)  add_stream: 1+ video: ref_idx already set (to 0)\n"));
    EXPECT_EQ(e.alerts(), "ALERT PMT-DIFF src 256 3 3 511 0:M[8]\n");
    const program_info &pg = e.t->pg[0];
    EXPECT_EQ(pg.nstreams, 2u);
    EXPECT_EQ(pg.stm[0].pcount, 2u);
    EXPECT_EQ(pg.stm[0].cc.value, 1);
    EXPECT_EQ(pg.stm[1].pcount, 2u); // a new stream has what its slot held, the old audio's
    EXPECT_EQ(pg.pcr_idx, 0);        // stays, though it names another stream now
    e.c.pmt(0x100, {.pcr_pid = 0x1ff, .streams = {{0x05, 0x104}, {0x0f, 0x102}, {0x02, 0x105}}});
    EXPECT_EQ(e.log(), "");
}

TEST(tables, damaged_tables_change_nothing_or_what_they_still_say)
{
    const octets pat = pat_section({{1, 0x100}, {2, 0x200}});
    const octets pmt = pmt_section({.pcr_pid = 0x101, .streams = {{0x1b, 0x101}, {0x0f, 0x102}}});
    engine e(every_check(), DEBUG_level);
    const std::string ignored = "upsert_pkt_info: [src] no section header in ";

    e.c.packet(0, {.unit_start = true, .has_payload = false});
    e.c.packet(0, {.unit_start = true, .adaptation = 183});
    e.c.packet(0, {.unit_start = true, .adaptation = 175}); // 7 bytes behind the pointer field
    EXPECT_EQ(lines_with(e.log(), ignored).size(), 3u);
    EXPECT_EQ(e.t->nprogs, 0u);

    octets long_pat = pat;
    long_pat[1] |= 0x0f; // 4095 - 256 bytes and more: ends with the packet
    long_pat.resize(183, 0xff);
    e.c.section(0, long_pat);
    e.feed();
    EXPECT_EQ(e.t->nprogs, 32u);
    EXPECT_EQ(e.t->pmt_pid[1], 0x200u);

    e.c.packet(0x100, {.unit_start = true, .adaptation = 171}); // 11 bytes
    EXPECT_EQ(lines_with(e.log(), ignored).size(), 1u);
    octets long_pmt = pmt;
    long_pmt[10] |= 0x0f; // the programme's information runs over all entries
    e.c.section(0x100, long_pmt);
    e.feed();
    EXPECT_EQ(e.t->pg[0].nstreams, 0u);
    octets long_es = pmt;
    long_es[15] |= 0x0f; // so does the first entry's
    e.c.section(0x100, long_es);
    e.feed();
    EXPECT_EQ(e.t->pg[0].nstreams, 1u);
    e.c.section(0x100, {0x02, 0xb0, 0x00, 0, 1, 0xc1, 0, 0, 0xe1, 0x01, 0xf0, 0});
    EXPECT_THAT(e.log(), HasSubstr("track-count: 1/0 pid=256 pcr-pid=257"));
}

TEST(tables, a_pat_of_256_sections_is_gathered_compared_and_replaced)
{
    tsan_config cfg = every_check();
    cfg.trk.pat_diff = true;
    engine e(cfg);
    for (unsigned i = 0; i < 512; ++i)
        e.c.pat({{1, 0x100}}, {.section = i % 256, .last_section = 255});
    EXPECT_THAT(e.log(), HasSubstr("too many programs: 224 over 32 dropped"));
    e.c.pat({{1, 0x200}}, {.version = 1});
    const std::string log = e.log();
    EXPECT_THAT(log, HasSubstr("PMTs added/deleted: 1/32 progs=1"));
    EXPECT_THAT(log, HasSubstr("PAT of 256 sections, not shown\n"));
    EXPECT_THAT(log, HasSubstr("\n  * program number=1 pid=512\nend PAT\n"));
}

TEST(tables, no_descriptor_hangs_the_printers_or_forges_a_line)
{
    const struct {
        octets descriptor;
        std::string printed;
    } cases[] = {
        {{0x5b, 4, 0x65, 0x6e, 0x67, 0xfc}, "desc 5b invalid"},
        {{0x5c, 4, 0x65, 0x6e, 0x67, 0xfc}, "desc 5c invalid"},
        {{0x45, 2, 0x01, 0xfe}, "desc 45 invalid"},
        {{0x51, 5, 0x00, 0, 0, 0xfc, 0}, "desc 51 invalid"},
        {{0x5d, 5, 'e', 'n', 'g', 0xfb, 0}, "desc 5d invalid"},
        {{0x5e, 5, 0, 'e', 'n', 'g', 0xfc}, "desc 5e invalid"},
        {{0x6c, 10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xf6}, "desc 6c invalid"},
        {{0x6d, 7, 0, 0, 0, 0, 0, 0, 0xf9}, "desc 6d invalid"},
        {{0x48, 7, 1, 1, 'P', 3, 'a', '\n', 'b'}, "provider=\"P\" service=\"a\\x0ab\""},
        {{0x48, 8, 1, 1, 'P', 4, 0x1f, 0, '\n', 'b'}, "service=\"\\x0ab\""},
        {{0x0a, 4, 'd', 'e', 'u', 0}, "language=deu audiotype=0"},
        {{0xbd, 255, 1, 2}, "desc bd unknown length=255 value=0102"},
    };
    for (const auto &test : cases) {
        engine e;
        e.c.pat({{1, 0x100}});
        e.c.pmt(0x100, {.pcr_pid = 0x101, .streams = {{0x1b, 0x101, test.descriptor}}});
        e.feed();
        EXPECT_THAT(snapshot(e), HasSubstr(test.printed));
        EXPECT_THAT(snapshot(e), HasSubstr("end PMT\n"));
    }
}

TEST(tables, a_snapshot_that_runs_out_of_room_is_cut_and_told)
{
    const octets vbi{0x45, 100, 0x01, 98}; // prints a line for each of its bytes
    octets lines = vbi;
    lines.resize(102, 0xe0);
    engine e;
    e.c.pat({{1, 0x100}});
    for (int i = 0; i < 3; ++i)
        e.c.pmt(0x100, {.pcr_pid = 0x101, .streams = {{0x1b, 0x101, lines}}});
    const std::string log = e.log();
    EXPECT_THAT(log, HasSubstr("(WRN)  add_ctxt_line: PMT buffer may overflow, "));
    EXPECT_THAT(log, Not(HasSubstr("PMT-DIFF")));
    EXPECT_EQ(lines_with(log, "add_ctxt_line").size() % 3, 0u); // each of the three is told in full
    EXPECT_LT(snapshot(e).size(), size_t{MAX_PMT_TXT});
}
