// Rotation on real files in a temporary folder, under a clock the tests set.

#include <libtarnlink/log.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

typedef std::set<std::string> names;

loglevel_ctx g_llctx;
time_t g_now;

int fake_clock(clockid_t, timespec *tms)
{
    *tms = {g_now, 0};
    return 0;
}

void say(time_t now, const std::string &text)
{
    g_now = now;
    LOG_STMT(NORM_level, "%s\n", text.c_str());
}

class rotation : public testing::Test {
protected:
    rotation()
    {
        set_clock_reader(fake_clock);
        glog_init("host");
        g_log = g_access_log = {};
        log_timefmt(&g_log, f_NO_TIME);
        log_timefmt(&g_access_log, f_NO_TIME);
    }
    ~rotation() override
    {
        log_close(&g_log);
        g_log = g_access_log = {};
        log_default(&g_log, stderr);
        set_clock_reader(nullptr);
        fs::permissions(dir, fs::perms::owner_all);
        fs::remove_all(dir);
    }
    // Opens the log; the access log's mirror shares the stream.
    void open(size_t max_size, size_t max_files)
    {
        ASSERT_EQ(log_open_ex(&g_log, path.c_str(), F_APPEND_OLD), 0);
        log_set_rota(&g_log, max_size, max_files, 0);
        log_mirror(&g_access_log, log_fp(&g_log));
    }
    names files() const
    {
        names found;
        for (const fs::directory_entry &entry : fs::directory_iterator(dir))
            found.insert(entry.path().filename());
        return found;
    }
    std::string text(const std::string &name) const
    {
        std::ifstream in(dir / name);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    std::string rotated(const std::string &tm, int idx) const
    {
        return "(NRM)  [host]: previous log rotated to [" + path.string() + "." + tm +
               "] tm=" + tm + ", idx=" + std::to_string(idx) + "\n";
    }

    std::string folder = (fs::temp_directory_path() / "rotationXXXXXX").string();
    fs::path dir = mkdtemp(folder.data());
    fs::path path = dir / "log";
};

} // namespace

// The limit of one byte makes the statements that rotation itself writes due for rotation as well.
TEST_F(rotation, keeps_the_newest_files)
{
    open(1, 3);
    for (time_t t = 101; t <= 104; ++t)
        say(t, "line");
    EXPECT_EQ(files(), (names{"log", "log.102", "log.103", "log.104"}));
    EXPECT_EQ(text("log.104"), rotated("103", 2) + "(NRM)  line\n");
    EXPECT_EQ(text("log"), rotated("104", 0));

    log_set_rota(&g_log, 1, 1, 0); // the next slot lies behind the last one now
    for (time_t t = 105; t <= 110; ++t)
        say(t, "more");
    say(110, "the same second");
    EXPECT_EQ(files(), (names{"log", "log.103", "log.105", "log.110"}));
    EXPECT_EQ(text("log.110"), rotated("110", 0) + "(NRM)  the same second\n");
}

// New York, clocks forward on 2026-03-08 and back on 2026-11-01, at two in the morning. The end of
// a day is reckoned in the zone time of the moment that asks: on the day of the change itself it
// comes an hour late or early.
TEST_F(rotation, at_the_end_of_the_day)
{
    setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1);
    tzset();
    constexpr time_t HOUR = 3600;
    constexpr time_t DAY = 24 * HOUR;
    constexpr time_t MARCH_8 = 1772946000;    // 2026-03-08 00:00:00 EST
    constexpr time_t NOVEMBER_1 = 1793505600; // 2026-11-01 00:00:00 EDT
    const struct {
        time_t set_at, limit, moved;
    } cases[] = {
        {MARCH_8 - HOUR, MARCH_8 - 1, MARCH_8 + DAY - 1},
        {MARCH_8 + 3 * HOUR, MARCH_8 + DAY - HOUR - 1, MARCH_8 + 2 * DAY - HOUR - 1},
        {NOVEMBER_1 - DAY, NOVEMBER_1 - 1, NOVEMBER_1 + DAY - 1},
        {NOVEMBER_1 + 3 * HOUR, NOVEMBER_1 + DAY + HOUR - 1, NOVEMBER_1 + 2 * DAY + HOUR - 1},
    };
    open(0, 0);
    EXPECT_EQ(log_rota_eod(&g_log), 0);
    EXPECT_EQ(log_rota_maxfiles(&g_log), 16U);
    for (const auto &c : cases) {
        log_set_rota(&g_log, 0, 128, c.set_at);
        EXPECT_EQ(log_rota_eod(&g_log), c.limit);
        const size_t count = files().size();
        say(c.limit, "before midnight");
        EXPECT_EQ(files().size(), count);
        say(c.limit + 1, "midnight");
        EXPECT_EQ(files().size(), count + 1);
        EXPECT_EQ(log_rota_eod(&g_log), c.moved);
    }
    unsetenv("TZ");
    tzset();
}

// The file goes on growing, and the next attempt comes after as many bytes again.
TEST_F(rotation, goes_on_in_a_folder_that_became_read_only)
{
    open(200, 3);
    fs::permissions(path, fs::perms::all);
    fs::permissions(dir, static_cast<fs::perms>(0555));
    const bool root = geteuid() == 0; // permissions do not hold root back
    ASSERT_TRUE(!root || seteuid(65534) == 0);
    testing::internal::CaptureStderr();
    const std::string line(200, 'x');
    say(100, line);
    say(100, "after");
    const std::string problem = "log_rotate: failed to rename [" + path.string() + "] to [" +
                                path.string() + ".100], ERROR(13): Permission denied";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), problem + " - rotation is to be stopped\n");
    ASSERT_TRUE(!root || seteuid(0) == 0);
    EXPECT_EQ(text("log"), "(NRM)  " + line + "\n(ERR)  log_rotate: " + problem +
                               " - rotation cancelled this time\n(NRM)  after\n");
}

TEST_F(rotation, survives_a_folder_that_vanishes)
{
    open(1, 3);
    fs::remove_all(dir);
    testing::internal::CaptureStderr();
    say(100, "lost");
    say(100, "lost");
    log_access("nowhere\n");
    const std::string messages = testing::internal::GetCapturedStderr();
    EXPECT_NE(messages.find("ERROR(2): No such file or directory - rotation is to be stopped\n"
                            "log_open_ex: uid/gig="),
              std::string::npos)
        << messages;
    fs::create_directory(dir);
    log_set_rota(&g_log, 0, 3, 0);
    say(100, "back");
    EXPECT_EQ(text("log"), "(NRM)  back\n");
}

TEST_F(rotation, leaves_a_full_disk_behind)
{
    fs::create_symlink("/dev/full", path);
    open(1, 3);
    say(100, "no room");
    log_set_rota(&g_log, 0, 3, 0);
    say(100, "room");
    log_access("shared\n");
    EXPECT_EQ(text("log"), rotated("100", 0) + "(NRM)  room\nshared\n");
}

TEST_F(rotation, refusals)
{
    testing::internal::CaptureStderr();
    log_default(&g_log, stderr);
    EXPECT_EQ(log_rotate(&g_log), 0);
    g_log.name[0] = 'x';
    EXPECT_EQ(log_rotate(&g_log), -1);
    ASSERT_EQ(log_popen(&g_log, "cat >/dev/null"), 0);
    EXPECT_EQ(log_rotate(&g_log), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "log_rotate: nothing to rotate.\nlog_rotate: stdout and stderr cannot be rotated.\n"
              "log_rotate: not supported for pipe-based streams.\n");
}

TEST_F(rotation, moves_an_old_file_aside)
{
    const std::string longest = (dir / std::string(115 - folder.size(), 'x')).string();
    for (const std::string &file : {longest, longest + "x", longest + ".empty"})
        std::ofstream(file) << (file.back() == 'y' ? "" : "text");
    EXPECT_EQ(move_if_present(longest.c_str()), 0); // to a name of 127 characters
    EXPECT_EQ(move_if_present((longest + "x").c_str()), 7);
    EXPECT_EQ(move_if_present((longest + ".empty").c_str()), 0);
    EXPECT_EQ(move_if_present((longest + ".empty/below").c_str()), -1);
    EXPECT_FALSE(fs::exists(longest));
    EXPECT_TRUE(fs::exists(longest + "x") && fs::exists(longest + ".empty"));
    EXPECT_EQ(files().size(), 3U);
}
