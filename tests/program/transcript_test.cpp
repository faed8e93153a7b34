// Command lines with all they give, in transcripts/.

#include "program.h"
#include "support/transcript.h"

#include <cstdlib>

namespace {

// A capture with an alert of every kind that a capture can have.
std::string every_kind()
{
    capture_builder c;
    c.pat({{1, 0x100}});
    const std::vector<es_entry> streams{{0x1b, 0x101}, {0x0f, 0x102}, {0x06, 0x103}};
    c.pmt(0x100, {.pcr_pid = 0x101, .streams = streams});
    c.pes(0x101, {.pts = 945000, .pcr = 900000});
    c.pes(0x102, {.pts = 945045}); // half a millisecond from the video, 500 from the PCR
    c.pcr(0x101, 909090);
    c.pes(0x102, {.pts = 855000});
    c.skip_cc(0x102, 2);
    c.payload(0x102);
    for (const unsigned cc : {9U, 0U, 9U, 0U}) {
        c.set_cc(0x101, cc);
        c.payload(0x101);
    }
    c.pmt(0x100, {.pcr_pid = 0x101, .version = 1, .streams = streams});
    c.pat({{1, 0x100}, {2, 0x200}}, {.version = 1});
    return c.text();
}

struct program_transcripts : program, testing::WithParamInterface<const char *> {};

} // namespace

TEST_P(program_transcripts, are_true)
{
    dir.file("nulls.ts", null_text(1000));
    dir.file("every_kind.ts", every_kind());
    setenv("ROOT", ORVSCAN_TESTS "/..", 1);
    replay(ORVSCAN_TESTS "/program/transcripts/" + std::string(GetParam()), dir.path());
}
INSTANTIATE_TEST_SUITE_P(the, program_transcripts,
                         testing::Values("captures.txt", "completion.txt", "options.txt",
                                         "reading.txt", "settings.txt"));
