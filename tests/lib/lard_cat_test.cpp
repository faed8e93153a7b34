// The reader of rings among the examples, as a program.

#include "support/process.h"

#include <libtarnlink/lard.h>

#include <sys/wait.h>
#include <unistd.h>

namespace {

struct lard_cat : testing::Test {
    ~lard_cat() override
    {
        const lard_t ring = lard_open(name.c_str());
        if (ring != nullptr)
            lard_destroy(ring);
    }
    // What it says of a ring whose writer, a process of its own unless it is to live, ends so.
    void shows(void (*end)(lard_t), const std::string &state) const
    {
        const pid_t writer = end != nullptr ? fork() : 0;
        lard_t ring = nullptr;
        if (writer == 0) {
            ring = lard_create(name.c_str(), 1);
            lard_puts(ring, "last words\n");
            lard_set_temp(ring, 3);
            if (end != nullptr) {
                end(ring);
                _exit(0);
            }
        } else {
            waitpid(writer, nullptr, 0);
        }
        const std::string pid = std::to_string(writer == 0 ? getpid() : writer);
        EXPECT_THAT(run_process({LARD_CAT_PROGRAM, name}),
                    ends(0, "last words\n",
                         "lard_cat: writer " + pid + ": " + state + ", temperature 3\n"));
        if (ring != nullptr)
            lard_close(ring);
    }

    std::string name = "lard_cat_test." + std::to_string(getpid());
};

} // namespace

TEST_F(lard_cat, shows_a_ring_and_its_writers_end)
{
    shows(nullptr, "alive");
    shows(lard_close, "closed");
    shows([](lard_t) { raise(SIGKILL); }, "crashed");
}

TEST_F(lard_cat, says_what_is_missing)
{
    EXPECT_THAT(run_process({LARD_CAT_PROGRAM, name}),
                ends(1, "",
                     "open_meta: shm_open(/" + name +
                         ".meta) ERROR(2): No such file or directory\n"
                         "lard_cat: no shared-memory log [" +
                         name + "] to read\n"));
    EXPECT_THAT(run_process({LARD_CAT_PROGRAM}), ends(1, "", "usage: lard_cat NAME\n"));
}
