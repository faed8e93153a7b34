// report_lines FILE: reads machine lines as orvreport does and tells what they were.

#include "report/blocks.h"
#include "report/lines.h"

#include <array>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

int main(int argc, char *argv[])
{
    const int fd = argc == 2 ? open(argv[1], O_RDONLY | O_CLOEXEC) : -1;
    if (fd < 0) {
        fprintf(stderr, "Usage: report_lines FILE\n");
        return 2;
    }
    line_blocks in(BLOCK_BYTES);
    line_parser parser;
    line_event event;
    text_line line;
    std::array<uint64_t, 4> counts{};
    uint64_t sum = 0;
    while (fill_blocks(&in, fd) > 0)
        while (next_line(&in, &line)) {
            const line_class found = parse_line(&parser, line.text, &event);
            ++counts[static_cast<size_t>(found)];
            if (found == line_class::event)
                sum += event.values[0] + event.tag.packet;
        }
    close(fd);
    printf("%lu machine lines, %lu blank, %lu foreign, %lu damaged; sum %lu\n", counts[0],
           counts[1], counts[2], counts[3], sum);
    return 0;
}
