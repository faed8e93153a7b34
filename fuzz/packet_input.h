// Inputs that are packets, and what a live host does between them.
//
// The input begins with the settings (two bytes of switches, five of thresholds) and goes on with
// records. A record's first byte, up to MAX_CONTENT, is the number of bytes that follow of a packet
// behind its sync byte; the rest of the packet is filling. MAX_CONTENT + 1 is a whole packet whose
// sync byte is damaged; larger numbers are acts of a host.
#pragma once

#include "tsanalyze/tsanalyze.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <span>

constexpr unsigned MAX_CONTENT = TS_PACKET_SIZE - 1;
constexpr size_t SETTINGS_LEN = 7;

// A packet in memory of its own, so that a read outside of it is noticed.
typedef std::unique_ptr<std::array<uint8_t, TS_PACKET_SIZE>> own_packet;

// One record: a packet or, without one, an act.
struct input_step {
    own_packet pkt;
    unsigned act = 0;
};

// One of the eight switches of a settings byte.
inline bool settings_bit(std::span<const uint8_t> in, unsigned n)
{
    return (in[n / 8] >> n % 8 & 1) != 0;
}

inline tsan_config settings_of(std::span<const uint8_t> in)
{
    const auto bit = [in](unsigned n) { return settings_bit(in, n); };
    tsan_config cfg{};
    cfg.is_enabled = !bit(0); // an input of zeros has everything on
    cfg.cc_track = !bit(1);
    cfg.access_log_alerts = !bit(2);
    cfg.no_rlog = bit(3);
    cfg.iso_rules = bit(7);
    cfg.trk = {!bit(8), !bit(9), !bit(10), !bit(11), !bit(12), !bit(13), !bit(14), !bit(15)};
    cfg.max_skip_pkts = bit(4) ? 4 : 100000;
    cfg.max_pdts_delta = in[2];
    cfg.max_pcr_delta = in[3];
    cfg.pcr_freq_ms = in[4];
    cfg.max_ndat_pcount = in[5];
    cfg.cc_max_ms0_ms = in[6];
    cfg.dump_stats_period = 1;
    memcpy(cfg.source, "fuzz", sizeof "fuzz");
    return cfg;
}

inline own_packet make_packet(std::span<const uint8_t> content, bool damaged)
{
    own_packet pkt = std::make_unique<own_packet::element_type>();
    pkt->fill(0xff);
    pkt->front() = damaged ? 0x46 : 0x47;
    std::copy(content.begin(), content.end(), pkt->begin() + 1);
    return pkt;
}

// Takes the next record off the input; none at its end.
inline std::optional<input_step> take_step(std::span<const uint8_t> *in)
{
    if (in->empty())
        return std::nullopt;
    const unsigned kind = in->front();
    *in = in->subspan(1);
    if (kind > MAX_CONTENT + 1)
        return input_step{.pkt = nullptr, .act = kind};
    const size_t len = std::min<size_t>(std::min(kind, MAX_CONTENT), in->size());
    own_packet pkt = make_packet(in->first(len), kind > MAX_CONTENT);
    *in = in->subspan(len);
    return input_step{.pkt = std::move(pkt)};
}

// Gives the section that a packet begins with the CRC without which the standard's rules refuse it.
inline void seal_section(std::array<uint8_t, TS_PACKET_SIZE> *pkt)
{
    const size_t at = 5u + (*pkt)[4];
    const bool is_section = ((*pkt)[1] & 0x40) != 0 && ((*pkt)[3] & 0x30) == 0x10;
    if (!is_section || at + 3 > pkt->size())
        return;
    const size_t len = ((*pkt)[at + 1] & 0x0Fu) * 256 + (*pkt)[at + 2];
    if (len < 9 || at + 3 + len > pkt->size())
        return;
    uint32_t crc = 0xFFFFFFFF;
    const size_t crc_at = at + len - 1;
    for (size_t bit = 8 * at; bit < 8 * crc_at; ++bit) {
        const uint32_t in = uint32_t{(*pkt)[bit / 8]} >> (7 - bit % 8) & 1;
        crc = crc << 1 ^ ((crc >> 31 ^ in) != 0 ? 0x04C11DB7 : 0);
    }
    for (size_t i = 0; i < 4; ++i)
        (*pkt)[crc_at + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
}
