// Tables at their limits.

#include "engine/engine.h"

#include <gmock/gmock.h>

#include <functional>

using namespace testing;

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
