// Rotation on real files in a temporary folder, under a clock the tests set.

#include "support/lines.h"
#include "support/logging.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <numeric>
#include <set>
#include <unistd.h>

namespace fs = std::filesystem;
using testing::internal::CaptureStderr, testing::internal::GetCapturedStderr;

namespace {

loglevel_ctx g_llctx;

void say(time_t now, const std::string &text)
{
    g_now.tv_sec = now;
    LOG_STMT(NORM_level, "%s\n", text.c_str());
}

struct rotation : testing::Test {
    rotation() { glog_init("host"); }
    ~rotation() override { log_close(&g_log); }
    // Opens the log; the access log's mirror shares the stream.
    void open(size_t max_size, size_t max_files)
    {
        ASSERT_EQ(log_open_ex(&g_log, path.c_str(), F_APPEND_OLD), 0);
        log_set_rota(&g_log, max_size, max_files, 0);
        log_mirror(&g_access_log, log_fp(&g_log));
    }
    std::string kept() const // the times of the rotated files
    {
        std::set<std::string> times;
        for (const auto &file : fs::directory_iterator(dir.path()))
            times.insert(file.path().extension());
        return std::accumulate(times.begin(), times.end(), std::string());
    }
    std::string rotated(const std::string &tm, int idx) const
    {
        return "(NRM)  [host]: previous log rotated to [" + path + "." + tm + "] tm=" + tm +
               ", idx=" + std::to_string(idx) + "\n";
    }

    test_clock clock{100};
    log_text app{&g_log}, access{&g_access_log};
    temp_dir dir;
    std::string path = dir.path("log");
};

} // namespace

// The limit of one byte makes the statements that rotation itself writes due for rotation as well.
TEST_F(rotation, keeps_the_newest_files)
{
    open(1, 3);
    for (time_t t = 101; t <= 104; ++t)
        say(t, "line");
    EXPECT_EQ(kept(), ".102.103.104");
    EXPECT_EQ(file_text(path + ".104"), rotated("103", 2) + "(NRM)  line\n");
    EXPECT_EQ(file_text(path), rotated("104", 0));
    log_set_rota(&g_log, 1, 1, 0); // the next slot lies behind the last one now
    for (time_t t = 105; t <= 110; ++t)
        say(t, "more");
    say(110, "the same second");
    EXPECT_EQ(kept(), ".103.105.110");
    EXPECT_EQ(file_text(path + ".110"), rotated("110", 0) + "(NRM)  the same second\n");
    fs::remove(path + ".110");
    say(111, "without the oldest file");
    EXPECT_EQ(file_text(path), rotated("111", 0) + "(ERR)  handle_rotation: unlink(" + path +
                                   ".110) ERROR(2) : No such file or directory\n");
    g_sigctx = 1;
    say(112, "in a handler");
    g_sigctx = 0;
    EXPECT_FALSE(fs::exists(path + ".112"));
}

// New York, clocks forward at two in the morning. The end of a day is reckoned in the zone time of
// the moment that asks: on the day of the change itself it comes an hour late.
TEST_F(rotation, at_the_end_of_the_day)
{
    setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1);
    tzset();
    constexpr time_t HOUR = 3600, DAY = 24 * HOUR, MARCH_8 = 1772946000; // 2026-03-08 00:00:00 EST
    open(0, 0);
    EXPECT_EQ(log_rota_eod(&g_log), 0);
    for (const time_t set_at : {MARCH_8 - DAY, MARCH_8 + 3 * HOUR}) {
        const time_t limit = set_at < MARCH_8 ? MARCH_8 - 1 : MARCH_8 + DAY - HOUR - 1;
        log_set_rota(&g_log, 0, 128, set_at);
        EXPECT_EQ(log_rota_maxfiles(&g_log), 16U); // for want of a number from 1 to 127
        say(limit, "before midnight");
        EXPECT_FALSE(fs::exists(path + "." + std::to_string(limit)));
        say(limit + 1, "midnight");
        EXPECT_TRUE(fs::exists(path + "." + std::to_string(limit + 1)));
        EXPECT_EQ(log_rota_eod(&g_log), limit + DAY);
    }
}

// The file goes on growing, and the next attempt comes after as many bytes again.
TEST_F(rotation, goes_on_in_a_file_that_cannot_be_renamed)
{
    open(200, 3);
    fs::create_directory(path + ".100");
    const std::string line(200, 'x'), problem = "log_rotate: failed to rename [" + path + "] to [" +
                                                path + ".100], ERROR(21): Is a directory";
    CaptureStderr();
    say(100, line);
    say(100, "after");
    EXPECT_EQ(GetCapturedStderr(), problem + " - rotation is to be stopped\n");
    EXPECT_EQ(file_text(path), "(NRM)  " + line + "\n(ERR)  log_rotate: " + problem +
                                   " - rotation cancelled this time\n(NRM)  after\n");
}

TEST_F(rotation, survives_a_folder_that_vanishes)
{
    open(1, 3);
    fs::remove_all(dir.path());
    CaptureStderr();
    say(103, "the last one in the old file");
    say(103, "lost");
    log_access("nowhere\n");
    EXPECT_EQ(log_mirror_fp(&g_access_log), nullptr);
    EXPECT_EQ(log_rotate(&g_log), LOG_FAILED);
    EXPECT_THAT(GetCapturedStderr(), testing::HasSubstr("ERROR(2): No such file or directory - "
                                                        "rotation is to be stopped\nlog_open_ex"));
    EXPECT_EQ(log_lost(&g_log), 1U);
    fs::create_directory(dir.path());
    log_set_rota(&g_log, 0, 3, 0);
    g_sigctx = 1;
    say(104, "in a handler");
    g_sigctx = 0;
    say(104, "back");
    EXPECT_EQ(file_text(path), "(NRM)  back\n");
}

TEST_F(rotation, goes_on_after_a_failed_close)
{
    open(0, 3);
    log_set_eod(&g_log, -1); // never
    CaptureStderr();
    close(fileno(g_log.fp));
    EXPECT_EQ(log_rotate(&g_log), LOG_FAILED);
    EXPECT_EQ(GetCapturedStderr(),
              "log_rotate: failed to close [" + path + "], ERROR(9): Bad file descriptor\n");
    log_ctx closed = g_log;
    log_close(&closed);
    logbuf_prepare(&closed, NORM_level, "closed for good\n");
    log_flush(&closed, NORM_level);
    say(101, "in the same file");
    EXPECT_EQ(file_text(path), "(NRM)  in the same file\n");
    g_log.loss.is_cut = true; // the piece goes with the file
    EXPECT_EQ(log_rotate(&g_log), LOG_OK);
    EXPECT_EQ(file_text(path), rotated("101", 0));
}

TEST(old_files, are_moved_aside)
{
    const temp_dir dir;
    const std::string name(116 - dir.path().size(), 'x');
    EXPECT_EQ(move_if_present(dir.file(name + "x", "text").c_str()), 7);
    EXPECT_EQ(move_if_present(dir.file(name, "text").c_str()), LOG_OK); // 127 characters
    EXPECT_FALSE(fs::exists(dir.path(name)));
    EXPECT_EQ(move_if_present(dir.file("empty", "").c_str()), LOG_OK);
    EXPECT_TRUE(fs::exists(dir.path("empty")));
    EXPECT_EQ(move_if_present(dir.path("missing").c_str()), LOG_OK);
    EXPECT_EQ(move_if_present(dir.path().c_str()), LOG_OK); // no file
    CaptureStderr();
    EXPECT_EQ(move_if_present(dir.path("empty/log").c_str()), LOG_FAILED);
    EXPECT_EQ(GetCapturedStderr(),
              "stat(" + dir.path("empty/log") + ") ERROR(20): Not a directory\n");
}
