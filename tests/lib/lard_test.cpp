// The shared-memory log between real processes, and as its raw objects show it.

#include <libtarnlink/log.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

loglevel_ctx g_llctx;

int fixed_clock(clockid_t clk_id, timespec *tms)
{
    *tms = {clk_id == CLOCK_MONOTONIC ? 7 : 1, 9};
    return 0;
}

class lard : public testing::Test {
protected:
    ~lard() override
    {
        set_clock_reader(nullptr);
        if (writer > 0)
            kill(writer, SIGKILL);
        for (const std::string &object : {meta, data})
            unlink(object.c_str());
    }
    // A number of the record, by its offset and width.
    uint64_t field(off_t offset, size_t width = 8) const
    {
        uint64_t value = 0;
        const int fd = ::open(meta.c_str(), O_RDONLY);
        EXPECT_EQ(pread(fd, &value, width, offset), static_cast<ssize_t>(width));
        close(fd);
        return value;
    }
    void set_field(off_t offset, uint64_t value) const
    {
        const int fd = ::open(meta.c_str(), O_RDWR);
        EXPECT_EQ(pwrite(fd, &value, sizeof value, offset), 8);
        close(fd);
    }
    static std::string text(lard_t ring)
    {
        std::string out(5 * 4096, '\0');
        const int fd = memfd_create("snapshot", 0);
        const ssize_t n = lard_snapshot(ring, fd);
        EXPECT_EQ(pread(fd, out.data(), out.size(), 0), n);
        close(fd);
        return out.substr(0, static_cast<size_t>(n));
    }
    std::string text() const
    {
        const lard_t reader = open();
        if (reader == nullptr)
            return "no ring";
        const std::string read = text(reader);
        lard_close(reader);
        return read;
    }
    lard_t create(size_t npages = 1) const { return lard_create(name.c_str(), npages); }
    lard_t open() const { return lard_open(name.c_str()); }

    std::string name = "lard_test." + std::to_string(getpid());
    std::string meta = "/dev/shm/" + name + ".meta";
    std::string data = "/dev/shm/" + name + ".dat";
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    pid_t writer = 0; // a process to end with the test
};

} // namespace

TEST_F(lard, lays_out_its_objects_as_documented)
{
    set_clock_reader(fixed_clock);
    const lard_t ring = create(2);
    for (const auto &[object, size] : {std::pair{meta, size_t{328}}, std::pair{data, 5 * page}}) {
        struct stat st {};
        ASSERT_EQ(stat(object.c_str(), &st), 0);
        EXPECT_EQ(static_cast<size_t>(st.st_size), size);
        EXPECT_EQ(st.st_mode & 0777, 0600U);
    }
    EXPECT_EQ(lard_puts(ring, "text\n"), 5);
    lard_set_temp(ring, 3);
    const uint64_t head[] = {2, 0, 5, static_cast<uint64_t>(getpid()), 7, 9, 2};
    for (size_t i = 0; i < std::size(head); ++i)
        EXPECT_EQ(field(static_cast<off_t>(8 * i)), head[i]) << i;
    EXPECT_EQ(field(60, 4), 3U);
    for (int i = 0; i < 63; ++i) // the first sample, a zero, is replaced
        lard_set_temp(ring, 2);
    EXPECT_EQ(lard_get_ctemp(ring), 3 + 63 * 2);
    EXPECT_EQ(field(312, 4), 3U + 63 * 2);
    EXPECT_EQ(field(320, 1), 0U);
    lard_close(ring);
    EXPECT_EQ(field(320, 1), 1U);
}

TEST_F(lard, takes_texts_up_to_one_byte_less_than_the_ring)
{
    const std::string longest(page - 1, 'x');
    const lard_t ring = create();
    EXPECT_EQ(lard_puts(ring, "kept"), 4);
    for (const std::string &refused : {std::string(), longest + "x"}) {
        EXPECT_EQ(lard_puts(ring, refused.c_str()), -7);
        EXPECT_EQ(lard_printf(ring, "%s", refused.c_str()), -7);
    }
    EXPECT_EQ(text(), "kept");
    lard_close(ring);
    for (const bool formatted : {false, true}) {
        const lard_t full = create();
        EXPECT_EQ(formatted ? lard_printf(full, "%s", longest.c_str())
                            : lard_puts(full, longest.c_str()),
                  static_cast<int>(page) - 1);
        EXPECT_EQ(text(), formatted ? longest : longest.substr(1) + '\0');
        lard_close(full);
    }
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
        ASSERT_EQ(field(8), start);
        ASSERT_EQ(field(16), std::min(all.size(), page));
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
    writer = fork();
    if (writer == 0) {
        const lard_t ring = create();
        lard_puts(ring, "first line\n");
        if (write(ready[1], "", 1) == 1)
            while (true)
                lard_printf(ring, "more and more lines\n");
        _exit(1);
    }
    char token = 0;
    ASSERT_EQ(read(ready[0], &token, 1), 1);
    const lard_t reader = open();
    ASSERT_NE(reader, nullptr);
    bool crashed = true;
    EXPECT_TRUE(lard_is_active(reader, &crashed));
    EXPECT_FALSE(crashed);
    EXPECT_EQ(lard_owner_pid(reader), writer);
    for (int i = 0; i < 1000; ++i)
        ASSERT_LE(text(reader).size(), page + 1);
    kill(writer, SIGKILL);
    waitpid(std::exchange(writer, 0), nullptr, 0);
    EXPECT_FALSE(lard_is_active(reader, &crashed));
    EXPECT_TRUE(crashed);
    EXPECT_NE(text(reader).find("more and more lines\n"), std::string::npos);
    lard_close(reader);

    const lard_t next = create(); // over what the dead process has left
    lard_puts(next, "new\n");
    EXPECT_TRUE(lard_is_active(next, &crashed));
    lard_close(next);
    const lard_t late = open();
    EXPECT_FALSE(lard_is_active(late, &crashed));
    EXPECT_FALSE(crashed);
    EXPECT_EQ(lard_puts(late, "readers do not write"), -7);
    EXPECT_EQ(text(late), "new\n");
    lard_destroy(late);
    EXPECT_EQ(open(), nullptr);
}

TEST_F(lard, second_writer_takes_the_name_over)
{
    const lard_t first = create();
    const lard_t second = create();
    lard_puts(first, "first");
    lard_puts(second, "second");
    EXPECT_EQ(text(), "second");
    lard_destroy(first);
    EXPECT_EQ(text(), "second");
    lard_destroy(second);
    EXPECT_EQ(text(), "no ring");
}

TEST_F(lard, reader_believes_nothing)
{
    const lard_t ring = create();
    lard_puts(ring, "text\n");
    const lard_t reader = open();
    for (const uint64_t start : {uint64_t{0}, uint64_t{page - 1}, uint64_t{page}, UINT64_MAX})
        for (const uint64_t len : {uint64_t{0}, uint64_t{3}, uint64_t{page + 1}, UINT64_MAX}) {
            set_field(8, start);
            set_field(16, len);
            EXPECT_LE(text(reader).size(), page + 1) << start << " " << len;
        }
    lard_close(reader);
    for (const uint64_t pages : {uint64_t{2}, UINT64_MAX / page / 2, UINT64_MAX / page + 1}) {
        set_field(0, pages);
        EXPECT_EQ(open(), nullptr) << pages;
    }
    lard_close(ring);
    set_field(0, 0);
    EXPECT_DEATH(open(), "npages > 0");
    ASSERT_EQ(truncate(meta.c_str(), 327), 0);
    EXPECT_EQ(open(), nullptr);
    EXPECT_EQ(lard_create(std::string(250, 'n').c_str(), 1), nullptr);
    for (const size_t pages : {size_t{0}, SIZE_MAX, SIZE_MAX / page / 4})
        EXPECT_EQ(create(pages), nullptr) << pages;
    EXPECT_NE(access(data.c_str(), F_OK), 0); // nothing is left behind
    EXPECT_DEATH(lard_create(nullptr, 1), "NULL != name");
}

TEST_F(lard, gets_every_statement)
{
    g_log = {};
    glog_init("host");
    ASSERT_EQ(log_open_ex(&g_log, "/dev/null", 0), 0);
    log_timefmt(&g_log, f_NO_TIME);
    EXPECT_EQ(log_set_lard(&g_log, create()), nullptr);
    for (const int level : {DEBUG_level, WARN_level, CRIT_level, ERR_level, PANIC_level})
        LOG_STMT(level, "level %d\n", level);
    EXPECT_EQ(text(), "(DBG)  level 2\n(WRN)  level -1\n(CRI)  level -2\n(ERR)  level -3\n"
                      "(PNC)  level -4\n");
    EXPECT_EQ(lard_get_ctemp(g_log.lh), 10);
    log_close(&g_log);
    EXPECT_EQ(text(), "no ring");
    log_default(&g_log, stderr);
}
