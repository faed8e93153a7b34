// The bytes of a PMT section through its reader and its printer.

#include "fuzz.h"
#include "tsanalyze/psi.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace {

// Whether no text of a descriptor has made lines of its own, or reached a terminal as anything but
// text. A line that was cut keeps its zero byte.
bool is_plain(std::string_view text)
{
    for (; !text.empty(); text.remove_prefix(text.find('\n') + 1)) {
        const std::string_view line = text.substr(0, text.find('\n'));
        const bool begins_well = line.starts_with("  ") || line.starts_with("new PMT ") ||
                                 line.starts_with("desc ") || line.starts_with("end PMT");
        if (!begins_well || std::any_of(line.begin(), line.end(), [](unsigned char c) {
                return c != '\0' && iscntrl(c) != 0;
            }))
            return false;
    }
    return true;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr size_t most = TS_PACKET_SIZE - 4;
    if (size < PMT_HEADER_LEN)
        return 0;
    swallow_logs();
    // In memory of its own size, so that a read past the packet's end is noticed.
    const size_t len = std::min(size, most);
    const auto bytes = std::make_unique<uint8_t[]>(len);
    std::copy_n(data, len, bytes.get());

    pmt_section pmt({bytes.get(), len});
    pmt_entry entry{};
    for (unsigned j = 0; j < MAX_PMT_ENTRIES && get_pmt_entry(&pmt, j, &entry); ++j) {
        fputs(streamtype_name(entry.stream_type), null_stream());
        get_pmt_hints(&pmt, j);
    }
    ctxt_spec text;
    if (open_ctxt(&text, MAX_PMT_TXT) != 0)
        return 0;
    print_pmt(&pmt, &text);
    char *shown = nullptr;
    size_t shown_len = 0;
    FILE *fp = open_memstream(&shown, &shown_len);
    dump_ctxt(fp, nullptr, &text);
    fclose(fp);
    const bool plain = is_plain({shown, shown_len});
    free(shown);
    if (!plain)
        abort();
    return 0;
}
