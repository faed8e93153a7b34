// PAT and PMT tracking, on tables as they should be and as they should not.

#include "engine/engine.h"
#include "support/lines.h"
#include "tsanalyze/shortcuts.h"
#include "tsanalyze/tag.h"

#include <gmock/gmock.h>

#include <functional>

using namespace testing;

TEST(tables, a_changed_pat_is_merged_and_reported_once)
{
    engine e;
    const auto old_pat = [&e](unsigned version) {
        e.c.pat({{3, 0x300}}, {.version = version, .section = 1, .last_section = 1});
        e.feed();
        e.c.pat({{1, 0x100}, {2, 0x200}}, {.version = version, .section = 0, .last_section = 1});
    };
    old_pat(0);
    EXPECT_EQ(e.t->nprogs, 0u); // not complete yet
    e.c.pmt(0x200, {.pcr_pid = 0x201, .streams = {{0x1b, 0x201}}});
    e.c.pmt(0x300, {.pcr_pid = 0x301, .streams = {{0x0f, 0x301}}});
    old_pat(0);
    old_pat(1);
    EXPECT_EQ(e.log(), "");
    for (int i = 0; i < 3; ++i)
        e.c.pat({{1, 0x100}, {3, 0x300}, {4, 0x400}}, {.version = 2});
    EXPECT_EQ(e.log(), R"((WRN)  [src] pid1024 ADDED in new PAT
(WRN)  [src] pid512 MISSING in new PAT
(WRN)  ALERT PAT-DIFF [src] PMTs added/deleted: 1/1 progs=3 at PAT[9]
)");
    EXPECT_EQ(e.alerts(), "ALERT PAT-DIFF src 0 3 1 1 PAT[9]\n");
    // Records stay where they are: 0x300 has moved up to the record that was 0x200's.
    e.c.pmt(0x300, {.pcr_pid = 0x301, .streams = {{0x0f, 0x301}}});
    EXPECT_EQ(e.alerts(), "ALERT PMT-DIFF src 768 1 1 769 1:M[12]\n");
}

TEST(tables, a_pat_list_ends_at_its_zero)
{
    engine e;
    e.c.pat({{1, 0x100}, {2, 0x200}});
    e.c.pat({}, {.version = 1});
    e.c.pat({{3, 0x300}}, {.version = 2}); // 0x200 stands behind it, until the list is ended anew
    e.c.pmt(0x200, {.pcr_pid = 0x201});
    e.c.pat({{3, 0x300}}, {.version = 3});
    e.c.pmt(0x200, {.pcr_pid = 0x201});
    e.feed();
    EXPECT_EQ(tag_text(e.t).text, std::string("pkt[6]"));
    EXPECT_EQ(e.t->pg[1].pcr_pid, 0x201u);
}

TEST(tables, what_leaves_nothing_to_analyse_ends_the_process)
{
    const std::tuple<std::vector<pat_entry>, unsigned, const char *> cases[] = {
        {{}, 1, "pat.cpp: process_PAT: invariant `tc->nprogs' broken"},
        {{{1, 0}}, 1, "process_PAT: invariant `tc->pmt_pid.tc->nprogs.' broken"},
        {{{1, 0x100}}, 0, "process_PMT: invariant `prog.tc.->pcr_pid' broken"},
        {{{1, 0x100}}, 1, "merge_PATs: invariant `tc->nprogs < MAX_PMTS' broken"},
    };
    for (const auto &[pat, pcr_pid, broken] : cases) {
        engine e;
        e.c.pat(pat);
        e.c.pmt(0x100, {.pcr_pid = pcr_pid});
        for (unsigned i = 0; i < 32; ++i) // one programme goes, 32 come
            e.c.pat({{i + 1, 0x200 + i}}, {.version = 1, .section = i, .last_section = 31});
        EXPECT_DEATH(e.feed(), broken);
    }
}

TEST(tables, streams_that_stay_keep_their_counters)
{
    engine e;
    one_program(&e.c);
    e.c.payload(0x101, 3);
    e.c.payload(0x102, 2);
    for (int i = 0; i < 2; ++i)
        e.c.pmt(0x100, {.pcr_pid = 0x1ff, .streams = {{5, 0x104}, {15, 0x102}, {2, 0x105}}});
    EXPECT_EQ(e.alerts(), "ALERT PMT-DIFF src 256 3 3 511 0:M[8]\n");
    const program_info &pg = e.t->pg[0];
    EXPECT_EQ(pg.nstreams, 2u); // type 5 is none
    EXPECT_EQ(pg.stm[0].pcount, 2u);
    EXPECT_EQ(last_cc(pg.stm[0]), 1);
    EXPECT_EQ(pg.stm[1].pcount, 2u); // a new stream has what its slot held, the old audio's
    EXPECT_EQ(pg.pcr_idx, 0);        // stays, though it names another stream now
}

TEST(tables, damaged_tables_change_nothing_or_what_they_still_say)
{
    engine e(every_check(), DEBUG_level);
    e.c.packet(0, {.unit_start = true, .has_payload = false});
    e.c.packet(0, {.unit_start = true, .adaptation = 183});
    e.c.packet(0, {.unit_start = true, .adaptation = 175}); // 7 bytes behind the pointer field
    EXPECT_EQ(lines_with(e.log(), "no section header in ").size(), 3u);

    octets pat = make_pat_section({{1, 0x100}, {2, 0x200}});
    pat[1] |= 0x0f; // 4095 - 256 bytes and more: ends with the packet
    e.c.section(0, pat);
    e.feed();
    EXPECT_EQ(e.t->nprogs, 32u);
    EXPECT_EQ(e.t->pmt_pid[1], 0x200u);

    e.c.packet(0x100, {.unit_start = true, .adaptation = 171}); // 11 bytes
    EXPECT_EQ(lines_with(e.log(), "no section header in ").size(), 1u);
    // The programme's information, then the first entry's, runs over all entries that follow.
    for (const size_t length_field : {10U, 15U}) {
        octets pmt = make_pmt_section({.pcr_pid = 0x101, .streams = {{0x1b, 0x101}, {4, 0x102}}});
        pmt[length_field] |= 0x0f;
        e.c.section(0x100, pmt);
        e.feed();
        EXPECT_EQ(e.t->pg[0].nstreams, length_field == 10 ? 0u : 1u);
    }
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
    EXPECT_EQ(e.alerts(), "ALERT PAT-DIFF src 0 1 1 32 PAT[513]\n");
    EXPECT_THAT(e.log(), AllOf(HasSubstr("PAT of 256 sections, not shown\n"),
                               HasSubstr("\n  * program number=1 pid=512\nend PAT\n")));
}

TEST(tables, no_descriptor_hangs_the_printers_or_forges_a_line)
{
    tsan_config cfg = every_check();
    cfg.trk.pmt_diff = true; // shows the snapshot
    const auto printed = [&cfg](const octets &descriptor) {
        engine e(cfg);
        e.c.pat({{1, 0x100}});
        e.c.pmt(0x100, {.pcr_pid = 0x101, .streams = {{0x1b, 0x101, descriptor}}});
        return e.log();
    };
    // The byte at `at` makes the validator's eight-bit sum stand still.
    const struct {
        uint8_t tag, length, at, value;
    } endless[] = {{0x45, 2, 3, 0xfe},   {0x51, 5, 5, 0xfc}, {0x5b, 4, 5, 0xfc},
                   {0x5c, 4, 5, 0xfc},   {0x5d, 5, 5, 0xfb}, {0x5e, 5, 6, 0xfc},
                   {0x6c, 10, 11, 0xf6}, {0x6d, 7, 8, 0xf9}, {0x51, 5, 5, 0xfb}};
    for (const auto &d : endless) {
        octets descriptor{d.tag, d.length};
        descriptor.resize(2U + d.length, 1);
        descriptor[d.at] = d.value;
        EXPECT_THAT(printed(descriptor), ContainsRegex("desc [4-6][1-e] invalid(.*\n)*end PMT\n"));
    }
    EXPECT_THAT(printed({0x48, 6, 1, 1, 'P', 2, 'a', '\n'}), HasSubstr(R"( service="a\x0a")"));
    EXPECT_THAT(printed({0x57, 6, 0, 0, 3, '\n', 'A', 'L'}), HasSubstr(R"( phone=\x0aAL)"));
    EXPECT_THAT(printed({0x0a, 4, 'd', 'e', 'u', 0}), HasSubstr("language=deu audiotype=0"));
    EXPECT_THAT(printed({0xbd, 255, 1, 2}), HasSubstr("desc bd unknown length=2 value=0102"));
}

// Descriptors that claim more than their loop holds, a last one that is only a tag among them.
TEST(tables, a_descriptor_ends_with_its_loop)
{
    tsan_config cfg = every_check();
    cfg.trk.pmt_diff = true;
    engine e(cfg);
    e.c.pat({{1, 0x100}});
    e.c.pmt(0x100, {.pcr_pid = 0x101,
                    .descriptors = {0x0e, 255, 0xc0, 0, 1, 0xbe},
                    .streams = {{0x1b, 0x101, {0xbd, 9, 1}}, {4, 0x102, {0xbd}}, {4, 0x103}}});
    EXPECT_THAT(lines_with(e.log(), "desc "),
                ElementsAre(EndsWith("maximum_bitrate max_bitrate=1 max_bitrate_decoded=50"),
                            EndsWith("desc bd unknown length=1 value=01"),
                            EndsWith("desc bd unknown length=0 value=")));
    EXPECT_EQ(e.t->pg[0].nstreams, 3u);
}

TEST(tables, no_capture_floods_the_log)
{
    const auto floods = [](const std::function<void(capture_builder *, unsigned)> &add) {
        engine e;
        log_timefmt(&g_log, 0);
        for (unsigned i = 0; i < 100; ++i)
            add(&e.c, i);
        return e.log().size() > 100 * e.c.bytes().size();
    };
    octets one_line_a_byte{0x45, 158, 1, 156};
    one_line_a_byte.resize(160, 0xe0);
    const std::vector<es_entry> claims_too_much(17, {0x1b, 0x101, {0x45, 255, 1, 253}});
    for (const std::vector<es_entry> &streams :
         {{{0x1b, 0x101, one_line_a_byte}}, {{0x1b, 0x101, octets(160, 0x45)}}, claims_too_much})
        EXPECT_FALSE(floods([&streams](capture_builder *c, unsigned i) {
            c->pat({{1, 0x100}});
            c->pmt(0x100, {.pcr_pid = 0x101, .version = i % 2, .streams = streams});
        }));
    EXPECT_FALSE(floods([](capture_builder *c, unsigned i) { // each replaces the whole list
        std::vector<pat_entry> programs;
        for (unsigned j = 0; j < 31; ++j)
            programs.push_back({j + 1, 0x100 + 0x100 * (i % 2) + j});
        c->pat(programs, {.version = i % 2});
    }));
}

TEST(tables, a_byte_and_the_text_that_shows_it_are_two_things)
{
    tsan_config cfg = every_check();
    cfg.trk.pmt_diff = true;
    engine e(cfg);
    e.c.pat({{1, 0x100}});
    for (const std::string name : {"a\x01", "a\\x01"}) {
        octets service{0x48, static_cast<uint8_t>(3 + name.size()), 1, 0};
        service.push_back(static_cast<uint8_t>(name.size()));
        service.insert(service.end(), name.begin(), name.end());
        e.c.pmt(0x100, {.pcr_pid = 0x101, .streams = {{0x1b, 0x101, service}}});
    }
    EXPECT_EQ(e.alerts(), "ALERT PMT-DIFF src 256 1 1 257 0:M[3]\n");
    EXPECT_THAT(lines_with(e.log(), "service="), IsSupersetOf({HasSubstr(R"( service="a\x01")"),
                                                               HasSubstr(R"( service="a\\x01")")}));
}

TEST(tables, a_snapshot_that_runs_out_of_room_is_cut_and_told)
{
    octets vbi{0x45, 100, 0x01, 98}; // prints a line for each of its bytes
    vbi.resize(102, 0xe0);
    engine e;
    e.c.pat({{1, 0x100}});
    for (int i = 0; i < 3; ++i) { // and not once only
        e.c.pmt(0x100, {.pcr_pid = 0x101, .streams = {{0x1b, 0x101, vbi}}});
        EXPECT_THAT(e.log(), HasSubstr("(WRN)  add_ctxt_line: PMT buffer may overflow, "));
    }
    EXPECT_EQ(e.alerts(), "");
    EXPECT_LT(e.t->pg[0].txt_pmt.textlen, MAX_PMT_TXT);
}
