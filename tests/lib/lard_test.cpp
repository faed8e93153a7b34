// The shared-memory log between real processes, and as its raw objects show it.

#include "support/lines.h"
#include "support/logging.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <numeric>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

loglevel_ctx g_llctx;

// The call of the library's that fails: its name, and which one from now on.
struct {
    std::string_view call;
    int number, error;
} g_fault;

struct lard : testing::Test {
    ~lard() override
    {
        unlink(meta.c_str());
        unlink(data.c_str());
    }
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
        EXPECT_GE(lard_snapshot(reader, fd), 0);
        lard_close(reader);
        std::string read = file_text("/proc/self/fd/" + std::to_string(fd));
        close(fd);
        return read;
    }

    test_clock clock{1000};
    std::string name = "lard_test." + std::to_string(getpid());
    std::string meta = "/dev/shm/" + name + ".meta", data = "/dev/shm/" + name + ".dat";
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
};

} // namespace

// The linker gives this program's calls of FUNCTION to __wrap_FUNCTION. All that goes in and out
// are whole numbers and addresses.
#define FAULT(function, failure)                                                                   \
    long __real_##function(long, long, long, long, long, long);                                    \
    long __wrap_##function(long, long, long, long, long, long);                                    \
    long __wrap_##function(long a, long b, long c, long d, long e, long f)                         \
    {                                                                                              \
        if (g_fault.call != #function || --g_fault.number != 0)                                    \
            return __real_##function(a, b, c, d, e, f);                                            \
        errno = g_fault.error;                                                                     \
        return failure;                                                                            \
    }
extern "C" {
FAULT(_ZnwmRKSt9nothrow_t, 0)
FAULT(fstat, -1)
FAULT(kill, -1)
FAULT(mmap, -1)
FAULT(munmap, -1)
FAULT(posix_fallocate, g_fault.error)
FAULT(pwrite, -1)
}

TEST_F(lard, lays_out_its_objects)
{
    const lard_t ring = create(2);
    EXPECT_EQ(file_text(meta).size(), 328U);
    EXPECT_EQ(file_text(data).size(), 5 * page);
    EXPECT_EQ(std::filesystem::status(data).permissions(), std::filesystem::perms{0600});
    const auto maps = lines_with(file_text("/proc/self/maps"), name + ".dat");
    EXPECT_NE(maps.back().find(" ---s "), std::string::npos); // none may touch the last page
    EXPECT_EQ(lard_puts(ring, "text\n"), 5);
    const lard_meta &m = record();
    EXPECT_EQ(m.owner_pid, getpid());
    EXPECT_EQ(m.write_tm.tv_sec, 1000 - BOOT);
    EXPECT_EQ(m.is_closed, 0U);
    lard_close(ring);
    EXPECT_EQ(m.is_closed, 1U);
}

TEST_F(lard, sums_up_the_last_samples)
{
    const lard_t ring = create();
    for (int i = 0; i < MAX_SNS; ++i) // the first ones are replaced
        lard_set_temp(ring, 5);
    lard_set_temp(ring, 3);
    for (int i = 1; i < MAX_SNS; ++i)
        lard_set_temp(ring, 2);
    EXPECT_EQ(lard_get_ctemp(ring), 3 + (MAX_SNS - 1) * 2);
    lard_close(ring);
}

TEST_F(lard, takes_texts_that_are_shorter_than_the_ring)
{
    const std::string longest(page - 1, 'x'), too_long = longest + "x";
    const lard_t ring = create();
    EXPECT_EQ(lard_puts(ring, ""), -7);
    EXPECT_EQ(lard_puts(ring, too_long.c_str()), LARD_NO_APPEND);
    EXPECT_EQ(lard_printf(ring, "%s", too_long.c_str()), LARD_NO_APPEND);
    EXPECT_EQ(text(), "");
    EXPECT_EQ(lard_printf(ring, "%s", longest.c_str()), static_cast<int>(page) - 1);
    EXPECT_EQ(text(), longest);
    EXPECT_EQ(lard_puts(ring, "yz"), 2); // the ring begins at its second byte now
    EXPECT_EQ(text(), std::string("z\0", 2) + longest.substr(2) + "y");
    EXPECT_EQ(lard_snapshot(ring, ::open("/dev/full", O_WRONLY)), LARD_FAILED);
    EXPECT_EQ(errno, ENOSPC);
    lard_destroy(ring);
    const lard_t other = create();
    EXPECT_EQ(lard_puts(other, longest.c_str()), static_cast<int>(page) - 1);
    EXPECT_EQ(text(), longest.substr(1) + '\0');
    lard_destroy(other);
}

TEST_F(lard, passes_its_name_on)
{
    const lard_t ring = create();
    const lard_t other = create();
    lard_puts(other, "other");
    lard_destroy(ring);
    EXPECT_EQ(text(), "other");
    lard_destroy(other);
    EXPECT_EQ(text(), "no ring");
}

// Lines of 100 bytes never meet the end of the ring evenly.
TEST_F(lard, runs_over_the_end_of_the_ring)
{
    const lard_t ring = create();
    lard_set_temp(ring, 5);
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
        ASSERT_EQ(lard_get_ctemp(ring), i + 1 < MAX_SNS ? 5 : 0); // texts cool it down
    }
    lard_destroy(ring);
}

TEST_F(lard, outlives_a_killed_writer)
{
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t writer = fork();
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
    EXPECT_TRUE(lard_is_active(reader, &crashed));
    EXPECT_FALSE(crashed);
    for (int i = 0; i < 1000; ++i)
        ASSERT_LE(text().size(), page + 1);
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    EXPECT_FALSE(lard_is_active(reader, &crashed));
    EXPECT_TRUE(crashed);
    EXPECT_NE(text().find("more and more lines\n"), std::string::npos);
    EXPECT_EQ(lard_puts(reader, "readers do not write"), LARD_NO_APPEND);
    lard_set_temp(reader, 7); // nor this
    lard_close(reader);
}

TEST_F(lard, keeps_its_order_under_signals)
{
    static lard_t ring = create();
    do_interrupted(
        [] {
            lard_puts(ring, "outer\n");
            lard_set_temp(ring, 1);
        },
        [] {
            lard_puts(ring, "handler\n");
            lard_set_temp(ring, 4);
        });
    const lard_meta &m = record();
    EXPECT_EQ(std::accumulate(std::begin(m.sns.val), std::end(m.sns.val), 0), m.sns.sum);
    lard_destroy(ring);
}

TEST_F(lard, reader_believes_nothing_of_the_record)
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
}

TEST_F(lard, reader_survives_objects_that_shrink)
{
    const lard_t ring = create();
    lard_puts(ring, "text");
    record().pld_start = 2; // a text that may begin with a zero byte
    lard_close(ring);
    const lard_t reader = open();
    EXPECT_FALSE(lard_is_active(reader, nullptr)); // though its writer lives
    EXPECT_EQ(text(), std::string("xt\0te", 5));
    ASSERT_EQ(truncate(data.c_str(), 0), 0);
    EXPECT_EQ(lard_puts(reader, "readers do not write"), LARD_NO_APPEND);
    EXPECT_EQ(lard_snapshot(reader, STDOUT_FILENO), LARD_FAILED);
    EXPECT_EQ(errno, EIO);
    ASSERT_EQ(truncate(meta.c_str(), 0), 0);
    EXPECT_EQ(lard_snapshot(reader, STDOUT_FILENO), LARD_FAILED);
    EXPECT_EQ(lard_get_ctemp(reader), 0);
    EXPECT_EQ(lard_owner_pid(reader), 0);
    EXPECT_FALSE(lard_is_active(reader, nullptr));
    EXPECT_EQ(open(), nullptr);
    lard_close(reader);
}

TEST_F(lard, leaves_nothing_behind_when_it_cannot_be_made)
{
    testing::internal::CaptureStderr();
    const auto mapped = [&] { return lines_with(file_text("/proc/self/maps"), name).size(); };
    const size_t before = mapped();
    const int lowest = dup(0);
    close(lowest);
    const auto make = [&] { // and read
        const lard_t ring = create(), reader = ring != nullptr ? open() : nullptr;
        const int error = reader == nullptr ? errno : 0;
        for (const lard_t made : {reader, ring})
            if (made != nullptr)
                lard_destroy(made);
        EXPECT_EQ(dup(0), lowest);
        close(lowest);
        EXPECT_EQ(mapped(), before);
        EXPECT_NE(access(data.c_str(), F_OK), 0);
        return error;
    };
    for (const auto &[call, count] : {std::pair{"_ZnwmRKSt9nothrow_t", 2},
                                      {"posix_fallocate", 1},
                                      {"mmap", 7},
                                      {"pwrite", 1},
                                      {"fstat", 2}})
        for (int number = 1; number <= count; ++number) {
            g_fault = {call, number, ENOMEM};
            EXPECT_EQ(make(), ENOMEM) << call << number;
        }
    g_fault = {"posix_fallocate", 1, EINTR};
    EXPECT_EQ(make(), 0); // tried again
    EXPECT_EQ(lard_create(std::string(249, 'x').c_str(), 1), nullptr);
    for (const size_t npages : {size_t{0}, SIZE_MAX / page / 4})
        EXPECT_EQ(create(npages), nullptr);
    EXPECT_EQ(split_lines(testing::internal::GetCapturedStderr()).size(), 14U);
}

TEST_F(lard, a_writer_that_may_not_be_signalled_exists)
{
    const lard_t ring = create();
    bool crashed = true;
    for (const int error : {EPERM, ESRCH}) {
        g_fault = {"kill", 1, error};
        EXPECT_EQ(lard_is_active(ring, &crashed), error == EPERM);
        EXPECT_EQ(crashed, error != EPERM);
    }
    EXPECT_DEATH(lard_create(nullptr, 1), "lard_create: invariant `NULL != name' broken");
    EXPECT_DEATH(lard_set_temp(ring, -1), "invariant `m->sns.sum >= 0' broken");
    g_fault = {"munmap", 1, EPERM};
    EXPECT_DEATH(lard_close(ring), "munmap\\(META\\): Operation not permitted");
    EXPECT_EQ(record().is_closed, 0U); // by a child, which is not the writer
    g_fault = {};
    lard_destroy(ring);
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
    g_log.fp = nullptr;
    log_close(&g_log); // and its ring
    EXPECT_EQ(text(), "no ring");
}
