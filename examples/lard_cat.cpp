// lard_cat NAME: shows a shared-memory log - of a process that runs, has ended or has crashed.
//
// The text goes to standard output; what became of the writer, and the temperature (the severities
// of the last messages summed up), to standard error. Ends with 1 when there is no such log.

#include <libtarnlink/lard.h>

#include <cstdio>
#include <memory>
#include <unistd.h>

namespace {

struct close_ring {
    void operator()(lard_t ring) const { lard_close(ring); }
};

const char *state_of(lard_t ring)
{
    bool crashed = false;
    if (lard_is_active(ring, &crashed))
        return "alive";
    return crashed ? "crashed" : "closed";
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: lard_cat NAME\n");
        return 1;
    }
    const std::unique_ptr<lard_ctx, close_ring> ring(lard_open(argv[1]));
    if (ring == nullptr) {
        fprintf(stderr, "lard_cat: no shared-memory log [%s] to read\n", argv[1]);
        return 1;
    }
    if (lard_snapshot(ring.get(), STDOUT_FILENO) < 0) {
        perror("lard_cat: write");
        return 1;
    }
    fprintf(stderr, "lard_cat: writer %ld: %s, temperature %d\n",
            static_cast<long>(lard_owner_pid(ring.get())), state_of(ring.get()),
            lard_get_ctemp(ring.get()));
    return 0;
}
