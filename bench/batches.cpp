#include "batches.h"

#include "support/capture.h"

namespace {

constexpr unsigned AUDIO_PID = 0x101;
constexpr unsigned DATA_PID = 0x102;

void add_pat(capture_builder *c, size_t /*i*/) { c->pat({{1, PMT_PID}}); }

void add_pmt(capture_builder *c, size_t /*i*/)
{
    c->pmt(PMT_PID,
           {.pcr_pid = VIDEO_PID,
            .streams = {{0x1b, VIDEO_PID, {}}, {0x0f, AUDIO_PID, {}}, {0x06, DATA_PID, {}}}});
}

void add_video(capture_builder *c, size_t /*i*/) { c->payload(VIDEO_PID); }

// Time stamps alternate between two values: each is news, and the last is followed by the first.
void add_video_pes(capture_builder *c, size_t i)
{
    const uint64_t dts = 918000 + i % 2 * 3600;
    c->pes(VIDEO_PID, {.pts = dts + 3600, .dts = dts});
}

void add_video_pcr(capture_builder *c, size_t /*i*/) { c->packet(VIDEO_PID, {.pcr = 900000}); }

void add_audio(capture_builder *c, size_t /*i*/) { c->payload(AUDIO_PID); }

void add_audio_pes(capture_builder *c, size_t i)
{
    c->pes(AUDIO_PID, {.pts = 918360 + i % 2 * 8640, .stream_id = 0xc0});
}

void add_null(capture_builder *c, size_t /*i*/) { c->null(); }

// Every stream of the full tables once, with neighbours far apart.
void add_any_stream(capture_builder *c, size_t i)
{
    c->payload(VIDEO_PID + static_cast<unsigned>(i * 1021 % BATCH));
}

constexpr packet_kind KINDS[] = {
    {"video", add_video, false},         {"video_pes", add_video_pes, false},
    {"video_pcr", add_video_pcr, false}, {"audio", add_audio, false},
    {"audio_pes", add_audio_pes, false}, {"null", add_null, false},
    {"pat_again", add_pat, false},       {"pmt_again", add_pmt, false},
    {"2048_pids", add_any_stream, true},
};

} // namespace

std::span<const packet_kind> packet_kinds() { return KINDS; }

static void add_start(capture_builder *c)
{
    add_pat(c, 0);
    add_pmt(c, 0);
    c->pes(VIDEO_PID, {.pts = 921600, .dts = 918000, .pcr = 900000});
    add_audio_pes(c, 1);
    c->payload(DATA_PID);
}

packet_batch make_batch(const packet_kind &kind)
{
    capture_builder c;
    if (!kind.full_tables)
        add_start(&c);
    const auto start_len = static_cast<ptrdiff_t>(c.bytes().size());
    for (size_t i = 0; i < BATCH; ++i)
        kind.add(&c, i);
    const auto begin = c.bytes().begin();
    // Where all packets have one PID its counter comes round within the batch.
    return {.start{begin, begin + start_len},
            .packets{begin + start_len, c.bytes().end()},
            .cc_step = kind.full_tables ? uint8_t{1} : uint8_t{0}};
}

void advance_counters(packet_batch *batch)
{
    for (size_t at = 3; at < batch->packets.size(); at += PKT_SIZE) {
        uint8_t &byte = batch->packets[at];
        byte = static_cast<uint8_t>((byte & 0xf0) | ((byte + batch->cc_step) & 0x0f));
    }
}
