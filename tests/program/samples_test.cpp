// The sample captures, against what other tools say of them (samples/README.md).

#include "program.h"

#include <gmock/gmock.h>

using testing::HasSubstr;

TEST(samples, programmes_and_streams)
{
    const struct {
        const char *file;
        std::vector<std::string> lines;
    } cases[] = {
        {"single.ts",
         {"PRG[0] pmt[0] pid=4096 at ", "PMT lists PCR pid=256 at ", "ADD (pid=256, type=27) ",
          "ADD (pid=257, type=3) ", "\tProcessed/analyzed             553/453\n",
          "---- PRG(0):2 streams, PMT(4096) PCR(256) ----\n",
          "[0:0] V(pid256) [H.264/14496-10 video (MPEG-4/AVC)]: P/A: 285/285\n",
          "[0:1] A(pid257) [11172-3 audio (MPEG-1)]: P/A: 168/168\n"}},
        {"two_programmes.ts",
         {"PRG[0] pmt[0] pid=4096 at ", "PRG[1] pmt[1] pid=4097 at ", "PMT lists PCR pid=256 at ",
          "PMT lists PCR pid=258 at ", "ADD (pid=256, type=2) ", "ADD (pid=257, type=3) ",
          "ADD (pid=258, type=27) ", "ADD (pid=259, type=15) ",
          "\tProcessed/analyzed             712/616\n",
          "---- PRG(0):2 streams, PMT(4096) PCR(256) ----\n",
          "[0:0] V(pid256) [13818-2 video (MPEG-2)]: P/A: 357/357\n",
          "[0:1] A(pid257) [11172-3 audio (MPEG-1)]: P/A: 100/100\n",
          "---- PRG(1):2 streams, PMT(4097) PCR(258) ----\n",
          "[1:0] V(pid258) [H.264/14496-10 video (MPEG-4/AVC)]: P/A: 83/83\n",
          "[1:1] A(pid259) [13818-7 Audio with ADTS transport syntax]: P/A: 76/76\n"}},
    };
    for (const auto &c : cases) {
        const run_result result = orvscan({"-v", ORVSCAN_SAMPLES "/" + std::string(c.file)});
        EXPECT_EQ(result.status, 0);
        for (const std::string &line : c.lines)
            EXPECT_THAT(result.err, HasSubstr(line)) << c.file;
        EXPECT_EQ(lines_with(result.err, "ADD (pid=").size(), c.file[0] == 's' ? 2U : 4U);
        EXPECT_EQ(lines_with(result.err, "ALERT ").size(), 0U);
        EXPECT_EQ(result.out, "\n");
    }
}
