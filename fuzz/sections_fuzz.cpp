// Packets of a PID through the gathering of sections, against a plain reading of the same packets.
//
// The input is records: how far the counter is off and switches in a byte, then, where a switch
// says so, the adaptation field's length and flags, then the number of payload bytes that follow.
// The rest of the packet is stuffing or, by another switch, goes on with sections as they should
// be, whose sizes come from the input.

#include "fuzz.h"
#include "tsanalyze/sections.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <vector>

namespace {

typedef std::vector<uint8_t> octets;
typedef std::array<uint8_t, TS_PACKET_SIZE> packet;

uint32_t crc_of(const octets &bytes)
{
    uint32_t crc = 0xffffffff;
    for (const uint8_t byte : bytes)
        for (int bit = 7; bit >= 0; --bit) {
            const uint32_t carry = crc >> 31 ^ (byte >> bit & 1u);
            crc = crc << 1 ^ (carry != 0 ? 0x04c11db7 : 0);
        }
    return crc;
}

struct packet_reader {
    std::span<const uint8_t> in;
    unsigned cc = 0;
    octets good{}; // of sections, still to be sent

    unsigned byte()
    {
        const unsigned value = in.empty() ? 0 : in[0];
        in = in.subspan(in.empty() ? 0 : 1);
        return value;
    }

    uint8_t good_byte()
    {
        if (good.empty()) {
            const size_t size = std::min<size_t>(12 + byte() * 4, 1024);
            good = {2, static_cast<uint8_t>(0xb0 | (size - 3) >> 8),
                    static_cast<uint8_t>(size - 3)};
            good.resize(size - 4, static_cast<uint8_t>(byte()));
            for (uint32_t crc = crc_of(good); good.size() < size; crc <<= 8)
                good.push_back(static_cast<uint8_t>(crc >> 24));
            std::reverse(good.begin(), good.end());
        }
        const uint8_t value = good.back();
        good.pop_back();
        return value;
    }

    // The next packet; that it is in memory of its own lets a read outside of it be noticed.
    std::unique_ptr<packet> next()
    {
        auto pkt = std::make_unique<packet>();
        pkt->fill(0xff);
        const unsigned switches = byte();
        const bool has_adaptation = (switches & 0x20) != 0, has_payload = (switches & 0x10) == 0;
        cc = (cc + (has_payload ? 1 : 0) + (switches & 0x0f)) & 0x0f;
        const unsigned control = (has_adaptation ? 0x20U : 0U) | (has_payload ? 0x10U : 0U);
        const unsigned header[] = {0x47, 0x01 | (switches & 0x40), 0, control | cc};
        std::copy(std::begin(header), std::end(header), pkt->begin());
        size_t at = 4;
        if (has_adaptation) {
            (*pkt)[4] = static_cast<uint8_t>(byte());
            (*pkt)[5] = static_cast<uint8_t>(byte());
            at = std::min<size_t>(5u + (*pkt)[4], TS_PACKET_SIZE);
        }
        const size_t count = std::min({size_t{byte()}, in.size(), TS_PACKET_SIZE - at});
        std::copy_n(in.begin(), count, pkt->begin() + at);
        in = in.subspan(count);
        if ((switches & 0x80) != 0)
            for (at += count; at < TS_PACKET_SIZE; ++at)
                (*pkt)[at] = good_byte();
        return pkt;
    }
};

// The same rules, byte by byte and without bounds.
struct plain_gatherer {
    octets open, last_header, last_payload;
    bool was_repeated = false;
    std::array<uint64_t, SECTION_FAULTS> refused{};
    std::vector<octets> out;

    size_t size() const { return 3 + (open[1] % 16u) * 256 + open[2]; }
    bool is_wanted() const { return open[1] >= 0x80 && size() <= 1024; }
    bool is_whole() const { return open.size() >= 3 && open.size() == size(); }

    void drop()
    {
        if (!open.empty() && (open.size() < 3 || is_wanted()))
            ++refused[SECTION_INCOMPLETE];
        open.clear();
    }

    void finish()
    {
        if (is_wanted() && crc_of(open) != 0)
            ++refused[SECTION_BAD_CRC];
        else if (is_wanted())
            out.push_back(open);
        open.clear();
    }

    // Adds a byte; false when the section cannot be.
    bool add(uint8_t byte)
    {
        open.push_back(byte);
        if (open.size() != 3 ||
            ((open[1] < 0x80 || size() >= 12) && size() <= (open[0] < 0x38 ? 1024 : 4096)))
            return true;
        ++refused[SECTION_BAD_LENGTH];
        open.clear();
        return false;
    }

    void take(const packet &pkt)
    {
        if ((pkt[3] & 0x10) == 0)
            return;
        const bool has_adaptation = (pkt[3] & 0x20) != 0;
        const size_t at = has_adaptation ? std::min<size_t>(pkt[4], 183) + 5 : 4;
        const octets header(pkt.begin(), pkt.begin() + 4), payload(pkt.begin() + at, pkt.end());
        const bool is_repeated = header == last_header && payload == last_payload;
        if (is_repeated && !was_repeated) {
            was_repeated = true;
            return;
        }
        const bool is_new_run = has_adaptation && pkt[4] > 0 && pkt[4] <= 183 && pkt[5] >= 0x80;
        if (is_new_run || last_header.empty() || (last_header[3] + 1) % 16 != pkt[3] % 16)
            drop();
        was_repeated = false;
        last_header = header;
        last_payload = payload;
        if ((pkt[1] & 0x40) != 0)
            take_unit_start(payload);
        else
            for (size_t i = 0; i < payload.size() && !open.empty(); ++i)
                if (add(payload[i]) && is_whole())
                    finish();
    }

    void take_unit_start(const octets &payload)
    {
        if (payload.empty() || payload[0] + 1u >= payload.size()) {
            drop();
            ++refused[SECTION_BAD_LENGTH];
            return;
        }
        size_t i = 1;
        const size_t start = payload[0] + 1u;
        while (i < start && !open.empty() && !is_whole())
            add(payload[i++]);
        if (i == start && is_whole())
            finish();
        drop();
        for (i = start; i < payload.size() && (!open.empty() || payload[i] != 0xff); ++i) {
            if (!add(payload[i]))
                return;
            if (is_whole())
                finish();
        }
    }
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    packet_reader reader{.in = {data, size}};
    const auto gatherer = std::make_unique<section_gatherer>();
    plain_gatherer plain;
    while (!reader.in.empty()) {
        const bool is_asked = reader.in[0] != 0xff;
        const auto pkt = reader.next();
        gatherer->take(read_header(pkt->data()), pkt->data());
        plain.out.clear();
        plain.take(*pkt);
        std::vector<octets> out;
        for (auto s = gatherer->next(); is_asked && !s.empty(); s = gatherer->next())
            out.emplace_back(s.begin(), s.end());
        expect(!is_asked || out == plain.out);
        for (const octets &section : out) {
            expect(section.size() == 3 + (section[1] % 16u) * 256 + section[2]);
            expect(crc_of(section) == 0);
        }
        expect(!is_asked || gatherer->refused() == plain.refused);
    }
    return 0;
}
