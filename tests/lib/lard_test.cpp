// The shared-memory log between real processes, and as its raw objects show it.

#include "support/lines.h"
#include "support/logging.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

loglevel_ctx g_llctx;

struct lard : testing::Test {
    ~lard() override { unlink(meta.c_str()), unlink(data.c_str()); }
    lard_t create(size_t npages = 1) const { return lard_create(name.c_str(), npages); }
    lard_t open() const { return lard_open(name.c_str()); }
    // The record, for looks and for damage.
    lard_meta &record() const
    {
        return *static_cast<lard_meta *>(mmap(nullptr, sizeof(lard_meta), PROT_READ | PROT_WRITE,
                                              MAP_SHARED, ::open(meta.c_str(), O_RDWR), 0));
    }
    std::string text() const // as a reader sees it
    {
        const lard_t reader = open();
        if (reader == nullptr)
            return "no ring";
        const int fd = memfd_create("snapshot", 0);
        lard_snapshot(reader, fd);
        lard_close(reader);
        const std::string read = file_text("/proc/self/fd/" + std::to_string(fd));
        close(fd);
        return read;
    }

    test_clock clock{1000};
    std::string name = "lard_test." + std::to_string(getpid());
    std::string meta = "/dev/shm/" + name + ".meta", data = "/dev/shm/" + name + ".dat";
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
};

} // namespace

TEST_F(lard, keeps_a_record)
{
    const lard_t ring = create(2);
    EXPECT_EQ(file_text(meta).size(), 328U);
    EXPECT_EQ(file_text(data).size(), 5 * page);
    const auto maps = lines_with(file_text("/proc/self/maps"), name + ".dat");
    EXPECT_NE(maps.back().find(" ---s "), std::string::npos); // none may touch the last page
    EXPECT_EQ(lard_puts(ring, "text\n"), 5);
    const lard_meta &m = record();
    EXPECT_EQ(m.owner_pid, getpid());
    EXPECT_EQ(m.write_tm.tv_sec, 1000 - BOOT);
    lard_set_temp(ring, 3);
    for (int i = 0; i < 63; ++i) // the first sample, a zero, is replaced
        lard_set_temp(ring, 2);
    EXPECT_EQ(m.sns.sum, 3 + 63 * 2);
    lard_close(ring);
    EXPECT_EQ(m.is_closed, 1U);
}

TEST_F(lard, takes_texts_up_to_one_byte_less_than_the_ring)
{
    const std::string longest(page - 1, 'x');
    const lard_t ring = create();
    EXPECT_EQ(lard_puts(ring, ""), -7);
    EXPECT_EQ(lard_puts(ring, (longest + "x").c_str()), -7);
    EXPECT_EQ(lard_printf(ring, "%sx", longest.c_str()), -7);
    EXPECT_EQ(lard_printf(ring, "%s", longest.c_str()), static_cast<int>(page) - 1);
    EXPECT_EQ(text(), longest);
    const lard_t other = create();
    EXPECT_EQ(lard_puts(other, longest.c_str()), static_cast<int>(page) - 1);
    EXPECT_EQ(text(), longest.substr(1) + '\0');
    lard_destroy(ring); // the name is the other's now
    EXPECT_EQ(text().size(), page - 1);
    lard_destroy(other);
    EXPECT_EQ(text(), "no ring");
}

// Lines of 100 bytes never meet the end of the ring evenly.
TEST_F(lard, runs_over_the_end_of_the_ring)
{
    const lard_t ring = create();
    std::string all;
    for (int i = 0; i < 200; ++i) {
        all += std::to_string(100000 + i) + std::string(93, 'a') + "\n";
        ASSERT_EQ(lard_puts(ring, all.substr(all.size() - 100).c_str()), 100);
        const size_t start = all.size() > page ? all.size() % page : 0;
        // The byte at the ring's beginning comes twice and the newest one is left out, as designed.
        const std::string last = all.substr(start > 0 ? all.size() - page + 1 : 0);
        const size_t turn = page - 1 - start;
        ASSERT_EQ(text(),
                  start > 0 ? last.substr(0, turn + 1) + last.substr(turn, start - 1) : all);
    }
    lard_destroy(ring);
}

TEST_F(lard, tells_what_became_of_its_writer)
{
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t writer = fork();
    if (writer == 0) {
        const lard_t ring = create();
        lard_printf(ring, "more and more lines\n");
        for (alarm(60), close(ready[1]);;)
            lard_printf(ring, "more and more lines\n");
    }
    close(ready[1]);
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 0); // the writer has begun
    close(ready[0]);
    const lard_t reader = open();
    bool crashed = true;
    EXPECT_TRUE(lard_is_active(reader, &crashed) && !crashed);
    for (int i = 0; i < 1000; ++i)
        ASSERT_LE(text().size(), page + 1);
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    EXPECT_TRUE(!lard_is_active(reader, &crashed) && crashed);
    EXPECT_NE(text().find("more and more lines\n"), std::string::npos);
    lard_close(reader);
    writer = fork();
    if (writer == 0)
        lard_close(create()), _exit(0);
    waitpid(writer, nullptr, 0);
    const lard_t late = open();
    EXPECT_TRUE(!lard_is_active(late, &crashed) && !crashed);
    EXPECT_EQ(lard_puts(late, "readers do not write"), -7);
    lard_destroy(late);
}

TEST_F(lard, reader_believes_nothing)
{
    lard_close(create());
    lard_meta &m = record();
    for (const uint64_t start : {uint64_t{0}, uint64_t{page - 1}, uint64_t{page}, UINT64_MAX})
        for (const uint64_t len : {uint64_t{0}, uint64_t{3}, uint64_t{3 * page}, UINT64_MAX}) {
            m.pld_start = start;
            m.pld_len = len;
            EXPECT_LE(text().size(), page + 1) << start << " " << len;
        }
    for (const uint64_t pages : {uint64_t{2}, UINT64_MAX / page / 2, UINT64_MAX / page + 1}) {
        m.seg_pages = pages;
        EXPECT_EQ(open(), nullptr) << pages;
    }
    m.seg_pages = 0;
    EXPECT_DEATH(open(), "npages > 0");
    ASSERT_EQ(truncate(meta.c_str(), 327), 0);
    EXPECT_EQ(open(), nullptr);
    for (const size_t pages : {size_t{0}, SIZE_MAX, SIZE_MAX / page / 4})
        EXPECT_EQ(create(pages), nullptr) << pages;
    EXPECT_NE(access(data.c_str(), F_OK), 0); // nothing is left behind
}

TEST_F(lard, gets_every_statement)
{
    log_text app(&g_log);
    log_set_lard(&g_log, create());
    for (const int level : {DEBUG_level, WARN_level, PANIC_level})
        LOG_STMT(level, "level %d\n", level);
    EXPECT_EQ(text(), "(DBG)  level 2\n(WRN)  level -1\n(PNC)  level -4\n");
    EXPECT_EQ(app.take(), "(WRN)  level -1\n(PNC)  level -4\n");
    EXPECT_EQ(lard_get_ctemp(g_log.lh), 5);
    lard_destroy(g_log.lh);
}
