// Snapshots of tables, aggregates and clock texts.

#include "misc/aggr.h"
#include "misc/ctxt.h"
#include "misc/mstime.h"
#include "support/lines.h"

#include <gtest/gtest.h>

namespace {

TEST(snapshot, takes_lines_while_there_is_room_and_shows_them_visibly)
{
    ctxt_spec a, b;
    ASSERT_EQ(open_ctxt(&a, 40), 0);
    EXPECT_EQ(written([&](FILE *fp) { dump_ctxt(fp, "head", &a); }), "");
    add_ctxt_line(&a, "%s", "a\\\n\x1f\x7f");
    EXPECT_EQ(a.textlen, 6);
    add_ctxt_line(&a, "%s", std::string(15, 'b').c_str());
    EXPECT_EQ(a.textlen, 22);
    EXPECT_FALSE(is_ctxt_full(&a));
    add_ctxt_line(&a, "%s", std::string(16, 'c').c_str()); // one too many: cut, with its zero
    EXPECT_EQ(a.textlen, 39);
    EXPECT_TRUE(is_ctxt_full(&a));
    add_ctxt_line(&a, "d");
    const std::string shown = "a\\\\\\x0a\\x1f\\x7f\n" + std::string(15, 'b') + "\n" +
                              std::string(15, 'c') + std::string("\0\n", 2);
    EXPECT_EQ(written([&](FILE *fp) { dump_ctxt(fp, "head", &a); }), "head\n" + shown);
    EXPECT_EQ(written([&](FILE *fp) { dump_ctxt(fp, nullptr, &a); }), shown);
    dump_ctxt(nullptr, nullptr, &a);

    EXPECT_EQ(cmp_ctxt(&a, &b), 1);
    b.textlen = a.textlen; // equally long and closed
    EXPECT_EQ(cmp_ctxt(&a, &b), 0);
    EXPECT_EQ(cmp_ctxt(&b, &a), 0);
    ASSERT_EQ(open_ctxt(&b, 40), 0);
    b.textlen = a.textlen;
    EXPECT_NE(cmp_ctxt(&a, &b), 0);
    replace_ctxt(&b, &a);
    EXPECT_EQ(b.textlen * 1000 + b.buflen, 39040);
    EXPECT_EQ(a.textlen + a.buflen, 0);
    EXPECT_EQ(written([&](FILE *fp) { dump_ctxt(fp, nullptr, &a); }), "");
}

TEST(snapshot, of_any_length_is_written_in_blocks)
{
    ctxt_spec s;
    ASSERT_EQ(open_ctxt(&s, 4096), 0);
    add_ctxt_line(&s, "%s", std::string(2000, '\x01').c_str());
    std::string shown;
    for (int i = 0; i < 2000; ++i)
        shown += "\\x01";
    EXPECT_EQ(written([&](FILE *fp) { dump_ctxt(fp, nullptr, &s); }), shown + "\n");
    EXPECT_EQ(written([](FILE *fp) { m_print(fp, "%s", std::string(200, 'x').c_str()); }),
              std::string(126, 'x') + "\n");
}

TEST(aggregate, keeps_a_period_and_the_run)
{
    aggr_val av{};
    const auto shown = [&av] { return written([&av](FILE *fp) { dump_aval(fp, "m", &av); }); };
    for (const uint64_t value : {5U, 3U, 10U})
        inc_aval(&av, value);
    EXPECT_EQ(shown(), "m:\t\tlocal-avg  = 6.00 (V=18/N=3) min(V)/max(V)=3/10, "
                       "global-avg = 6.00 (V=18/N=3) min(V)/max(V)=3/10\n");
    reset_aval(&av);
    EXPECT_EQ(shown(), "m:\t\tlocal-avg  = -nan (V=0/N=0) min(V)/max(V)=0/0, "
                       "global-avg = 6.00 (V=18/N=3) min(V)/max(V)=3/10\n");
    inc_aval(&av, 1); // the run's extremes follow with the next value
    EXPECT_EQ(shown(), "m:\t\tlocal-avg  = 1.00 (V=1/N=1) min(V)/max(V)=1/1, "
                       "global-avg = 4.75 (V=19/N=4) min(V)/max(V)=3/10\n");
    inc_aval(&av, 12);
    EXPECT_EQ(shown(), "m:\t\tlocal-avg  = 6.50 (V=13/N=2) min(V)/max(V)=1/12, "
                       "global-avg = 6.20 (V=31/N=5) min(V)/max(V)=1/12\n");
}

TEST(clock_text, counts_hours_on)
{
    EXPECT_STREQ(ms_timestr(100 * 3600000 + 59 * 60000 + 58007).text, "100:59:58.007");
    EXPECT_STREQ(ticks_timestr(90 * 61002).text, "00:01:01.002");
    char text[14];
    EXPECT_EQ(ms2timestr(0, text, sizeof text), 12);
    EXPECT_DEATH(ms2timestr(0, text, 12), "n < \\(ssize_t\\)slen");
}

} // namespace
