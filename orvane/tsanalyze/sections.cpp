#include "tsanalyze/sections.h"

#include "tsanalyze/psi.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

// ISO/IEC 13818-1, 2.4.4.4 and 2.4.4.11, tables 2-30 and 2-31.
constexpr size_t HEADER_SIZE = 3;        // up to section_length
constexpr size_t LEAST_WITH_SYNTAX = 12; // the long header and a CRC
constexpr size_t MAX_PRIVATE_SIZE = 4096;
constexpr uint8_t FIRST_PRIVATE_ID = 0x38; // from here on DSM-CC and private sections
constexpr uint8_t STUFFING_ID = 0xFF;

size_t section_size(const uint8_t *section)
{
    return HEADER_SIZE + ((section[1] & 0x0Fu) << 8) + section[2];
}

bool has_syntax(const uint8_t *section) { return (section[1] & 0x80) != 0; }

bool length_can_be(const uint8_t *section)
{
    const size_t most = section[0] < FIRST_PRIVATE_ID ? MAX_SECTION_SIZE : MAX_PRIVATE_SIZE;
    const size_t size = section_size(section);
    return size <= most && (size >= LEAST_WITH_SYNTAX || !has_syntax(section));
}

// Whether a section is for handing out; any other is stepped over.
bool is_wanted(const uint8_t *section)
{
    return has_syntax(section) && section_size(section) <= MAX_SECTION_SIZE;
}

} // namespace

void section_gatherer::take(ts_header h, const uint8_t *pkt)
{
    while (!next().empty())
        ;
    is_clean_ = hdr_has_payload(h) && open_size_ == 0;
    if (!hdr_has_payload(h))
        return;
    settled_ = 0;
    const auto payload = ts_get_payload(h, pkt);
    const bool is_same = payload.size() == payload_size_ &&
                         memcmp(payload.data(), payload_.data(), payload_size_) == 0;
    if (is_same && h == last_ && !was_repeated_) {
        was_repeated_ = true;
        return;
    }
    const bool is_next = hdr_cc(h) == ((hdr_cc(last_) + 1) & 0x0F) && !ts_has_discontinuity(h, pkt);
    if (!is_next)
        drop_open();
    last_ = h;
    was_repeated_ = false;
    if (!is_same) {
        std::copy(payload.begin(), payload.end(), payload_.begin());
        payload_size_ = payload.size();
        proven_ = 0;
    }
    at_ = payload_size_;
    if (hdr_is_unit_start(h))
        return begin_unit(payload);
    append(payload); // what follows the end of the open section is stuffing
    if (is_whole())
        finish_open();
}

// The pointer field counts the bytes up to the first section that begins in the packet. They are
// the end of the open one, all of them.
void section_gatherer::begin_unit(std::span<const uint8_t> payload)
{
    if (payload.empty() || payload[0] + 1u >= payload.size()) {
        drop_open();
        return refuse(SECTION_BAD_LENGTH);
    }
    const auto end_of_open = payload.subspan(1, payload[0]);
    at_ = 1 + end_of_open.size();
    if (append(end_of_open) == end_of_open.size() && is_whole())
        finish_open();
    else
        drop_open();
}

// Adds to the open section, if there is one, what of the bytes belongs to it; returns how many.
size_t section_gatherer::append(std::span<const uint8_t> bytes)
{
    if (open_size_ == 0)
        return 0;
    size_t used = 0;
    if (open_size_ < HEADER_SIZE) {
        used = std::min(HEADER_SIZE - open_size_, bytes.size());
        std::copy_n(bytes.data(), used, open_.data() + open_size_);
        open_size_ += used;
        if (open_size_ < HEADER_SIZE)
            return used;
        if (!length_can_be(open_.data())) {
            refuse(SECTION_BAD_LENGTH);
            open_size_ = 0;
            return used;
        }
    }
    const size_t count = std::min(section_size(open_.data()) - open_size_, bytes.size() - used);
    if (is_wanted(open_.data()))
        std::copy_n(bytes.data() + used, count, open_.data() + open_size_);
    open_size_ += count;
    return used + count;
}

bool section_gatherer::is_whole() const
{
    return open_size_ >= HEADER_SIZE && open_size_ == section_size(open_.data());
}

void section_gatherer::finish_open()
{
    if (is_wanted(open_.data())) {
        is_done_ = section_crc_is_right({open_.data(), open_size_});
        if (is_done_)
            return;
        refuse(SECTION_BAD_CRC);
    }
    open_size_ = 0;
}

void section_gatherer::drop_open()
{
    if (open_size_ != 0 && (open_size_ < HEADER_SIZE || is_wanted(open_.data())))
        refuse(SECTION_INCOMPLETE);
    open_size_ = 0;
}

// Begins an open section with the last bytes of a packet.
void section_gatherer::open(std::span<const uint8_t> bytes)
{
    open_[0] = bytes[0];
    open_size_ = 1;
    append(bytes.subspan(1));
}

std::span<const uint8_t> section_gatherer::next()
{
    if (is_done_) {
        is_done_ = false;
        return {open_.data(), std::exchange(open_size_, 0)};
    }
    while (at_ < payload_size_ && payload_[at_] != STUFFING_ID) {
        const size_t begin = std::exchange(at_, payload_size_);
        const std::span<const uint8_t> rest(payload_.data() + begin, payload_size_ - begin);
        const uint8_t *section = rest.data();
        if (rest.size() < HEADER_SIZE || section_size(section) > rest.size()) {
            open(rest);
            break;
        }
        if (!length_can_be(section)) {
            refuse(SECTION_BAD_LENGTH);
            break;
        }
        at_ = begin + section_size(section);
        if (!is_wanted(section))
            continue;
        if (begin == proven_ || section_crc_is_right(rest)) {
            proven_ = begin;
            return rest.first(section_size(section));
        }
        refuse(SECTION_BAD_CRC);
    }
    return {};
}

void section_gatherer::settle()
{
    const bool is_whole_packet = hdr_is_unit_start(last_) && hdr_has_payload_only(last_);
    if (is_clean_ && open_size_ == 0 && is_whole_packet && !was_repeated_)
        settled_ = hdr_followed(last_);
}

void section_gatherer::reset()
{
    last_ = settled_ = 0;
    was_repeated_ = is_done_ = false;
    open_size_ = payload_size_ = at_ = proven_ = 0;
}
