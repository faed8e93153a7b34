// The short road and the whole one leave the same behind, and what they left behind before.

#include "engine/engine.h"
#include "engine/two_roads.h"
#include "fuzz/road_input.h"
#include "support/kept.h"
#include "support/lines.h"

#include <gtest/gtest.h>
#include <libtarnlink/invariant.h>

#include <filesystem>
#include <random>

namespace {

// A capture, and what a host does between its packets.
struct journey {
    explicit journey(unsigned seed) : random(seed) {}

    unsigned any(unsigned below) { return static_cast<unsigned>(random() % below); }
    bool one_in(unsigned n) { return any(n) == 0; }
    void act(enum road_step::act a) { acts.emplace(c.count(), a); }
    std::vector<road_step> steps() const
    {
        std::vector<road_step> all;
        for (size_t i = 0; i <= c.count(); ++i) {
            for (auto [it, end] = acts.equal_range(i); it != end; ++it)
                all.push_back({.act = it->second});
            if (i < c.count())
                all.push_back({.pkt = c.at(i)});
        }
        return all;
    }

    capture_builder c;
    std::multimap<size_t, enum road_step::act> acts; // before that packet
    std::mt19937 random;
    bool has_programs = false; // what the latest PAT lists; two empty ones would end the process
    uint64_t clock = 900000;
};

// Few PIDs, so that they meet: listed twice, as PMT and as stream, not at all.
unsigned any_pid(journey *j)
{
    constexpr unsigned pids[] = {0x101, 0x101, 0x101, 0x102, 0x102,  0x103,
                                 0x104, 0x201, 0x202, 17,    0x1fff, 0x1fff};
    return pids[j->any(std::size(pids))];
}

void add_pat(journey *j)
{
    const pat_entry all[] = {{1, 0x100}, {2, 0x200}, {3, 0x300}, {4, 0x104}};
    std::vector<pat_entry> programs;
    for (const pat_entry &entry : all)
        if (j->any(4) < (entry.program < 3 ? 3u : 1u))
            programs.push_back(entry);
    if (programs.empty() && !j->has_programs)
        programs.push_back(all[0]);
    const unsigned version = j->any(2);
    if (j->one_in(4)) {
        j->c.pat({programs.begin(), programs.end()}, {.version = version, .last_section = 1});
        j->c.pat({{1, 0x100}}, {.version = version, .section = 1, .last_section = 1});
        j->has_programs = true;
        return;
    }
    j->c.pat(programs, {.version = version});
    j->has_programs = !programs.empty();
}

void add_pmt(journey *j)
{
    constexpr unsigned types[] = {0x1b, 0x0f, 0x06, 0x03, 0x05};
    constexpr unsigned odd_pids[] = {17, 0x100, 0x102, 0x103, 0x200, 0x201, 0x300, 0x1fff};
    pmt_fields pmt{.pcr_pid = j->one_in(3) ? odd_pids[j->any(8)] : 0x101, .version = j->any(8) / 7};
    for (unsigned i = 0; i < 4; ++i)
        if (!j->one_in(6))
            pmt.streams.push_back({j->one_in(8) ? types[j->any(5)] : types[i], 0x101 + i});
    if (j->one_in(6))
        pmt.streams.push_back({0x0f, odd_pids[j->any(8)]});
    if (j->one_in(10)) { // a line for each byte: the snapshot runs out of room
        pmt.descriptors = {0x45, 120, 0x01, 118};
        pmt.descriptors.resize(122, 0xe0);
    }
    pmt.program = j->one_in(4) ? 2 : 1;
    const unsigned pid = 0x100 * (j->one_in(6) ? 3 - pmt.program : pmt.program);
    j->c.pmt(pid, pmt);
    while (j->one_in(2)) // tables are repeated, as a rule
        j->c.pmt(pid, pmt);
}

void add_pes(journey *j, unsigned pid)
{
    pes_fields pes;
    const auto near = [j] { return j->clock + 90 * j->any(j->one_in(8) ? 1000 : 300); };
    if (!j->one_in(5))
        pes.pts = j->one_in(4) ? 945000 : near();
    if (j->one_in(3))
        pes.dts = near();
    if (j->one_in(3))
        pes.pcr = j->clock;
    j->clock += 90 * j->any(60);
    j->c.pes(pid, pes);
}

void add_any(journey *j)
{
    const unsigned pid = any_pid(j);
    switch (j->any(24)) {
    case 0:
        return add_pat(j);
    case 1:
    case 2:
        return add_pmt(j);
    case 3: // repeated tables
        return j->c.raw({j->c.at(0), j->c.at(2)});
    case 4:
    case 5:
    case 6:
        return add_pes(j, pid);
    case 7:
        return j->c.pcr(pid, j->clock += 90 * j->any(60));
    case 8:
        return j->c.packet(pid, {.discontinuity = j->one_in(2),
                                 .damaged = j->one_in(4),
                                 .scrambled = j->one_in(4),
                                 .adaptation = 180 + j->any(8)});
    case 9:
        return j->one_in(2) ? j->c.set_cc(pid, 0) : j->c.skip_cc(pid, 1 + j->any(3));
    case 10: // once more; not an emptied PAT, whose repetition ends the process
        if (j->has_programs)
            j->c.raw({j->c.at(j->c.count() - 1), j->c.at(j->c.count() - 1) + PKT_SIZE});
        return;
    case 11:
        j->c.payload(pid);
        j->c.last(1 + j->any(3)) ^= static_cast<uint8_t>(1 << j->any(8));
        return;
    case 12:
        return j->act(static_cast<enum road_step::act>(1 + j->any(road_step::ACT_COUNT - 1)));
    default:
        return j->c.payload(pid, 1 + static_cast<int>(j->any(5)));
    }
}

tsan_config any_settings(journey *j)
{
    tsan_config cfg = every_check();
    for (bool *flag : {&cfg.is_enabled, &cfg.cc_track})
        *flag = !j->one_in(8);
    cfg.iso_rules = j->one_in(2);
    for (bool *flag : {&cfg.trk.sdt_ignore, &cfg.trk.misc_ignore, &cfg.trk.pdts_update,
                       &cfg.trk.pat_pmt_pkt, &cfg.trk.pcr_update, &cfg.trk.cc_track,
                       &cfg.trk.pmt_diff, &cfg.trk.pat_diff, &cfg.no_rlog})
        *flag = j->one_in(8);
    cfg.max_skip_pkts = j->one_in(8) ? 3 : 5000;
    cfg.max_pdts_delta = j->one_in(3) ? 0 : 100;
    cfg.max_pcr_delta = j->one_in(3) ? 0 : 100;
    cfg.max_ndat_pcount = j->one_in(2) ? 0 : 20;
    return cfg;
}

// What random packets seldom come to.
constexpr void (*HAND_MADE[])(capture_builder *) = {
    [](capture_builder *c) { // an emptied list comes back, and is emptied again
        for (int i = 0; i < 2; ++i) {
            c->pat({}, {.version = 1});
            c->pat({{1, 0x100}}, {.version = 2});
        }
        c->pat({{1, 0x100}}, {.version = 3});
        c->payload(0x200);
    },
    [](capture_builder *c) { // a table comes back
        for (const unsigned version : {1U, 1U, 2U, 1U})
            c->pmt(0x100, {.pcr_pid = 0x101, .version = version, .streams = {{0x1b, 0x101}}});
    },
    [](capture_builder *c) { // null packets before anything was analysed, then out of sync
        c->null();
        c->raw(octets(PKT_SIZE, 0));
        c->payload(0x101);
        c->null();
        c->raw(octets(PKT_SIZE, 0));
    },
};

// Along both roads; `name` is kept with what they leave behind.
void walk(const std::string &name, const tsan_config &cfg, std::span<const road_step> steps)
{
    static time_t start = 1000; // notices of the whole process are due again at each
    static kept_texts kept(ORVSCAN_TESTS "/expected/roads.txt");
    const std::string at_length = road_trip(cfg, steps, road::WHOLE, start += 10000);
    ASSERT_EQ(road_trip(cfg, steps, road::SHORT, start += 10000), at_length) << name;
    kept.compare(name, at_length);
}

} // namespace

// Takes the place of the library's: inputs break the same invariants along both roads.
void invariant_failed(const char *expression, const char *, const char *)
{
    throw broken_invariant{expression};
}

TEST(roads, are_the_same_to_every_user)
{
    log_set_modules(&g_log, DEBUG_level);
    for (unsigned seed = 0; seed < 400; ++seed) {
        journey j(seed);
        const tsan_config cfg = any_settings(&j);
        j.c.pat({{1, 0x100}, {2, 0x200}});
        j.has_programs = true;
        j.c.pmt(0x100,
                {.pcr_pid = 0x101, .streams = {{0x1b, 0x101}, {0x0f, 0x102}, {0x06, 0x103}}});
        if (seed < std::size(HAND_MADE))
            HAND_MADE[seed](&j.c);
        while (j.c.count() < 300)
            add_any(&j);
        ASSERT_NO_FATAL_FAILURE(walk("journey-" + std::to_string(seed), cfg, j.steps()));
    }
}

TEST(roads, are_as_they_were_to_inputs_of_the_fuzzer)
{
    for (const std::string folder : {"packets", "roads"})
        for (const auto &entry : std::filesystem::directory_iterator(ORVSCAN_CORPUS "/" + folder)) {
            const std::string text = file_text(entry.path());
            const std::span in(reinterpret_cast<const uint8_t *>(text.data()), text.size());
            if (in.size() < SETTINGS_LEN)
                continue;
            log_set_modules(&g_log, settings_bit(in, 6) ? DEBUG_level : NORM_level);
            const road_input input = steps_of(in);
            if (input.packets.empty())
                continue;
            ASSERT_NO_FATAL_FAILURE(walk(folder + "-" + entry.path().filename().string(),
                                         settings_of(in), input.steps));
        }
}

TEST(roads, show_tables_as_they_did)
{
    log_set_modules(&g_log, DEBUG_level);
    for (const auto &entry : std::filesystem::directory_iterator(ORVSCAN_CORPUS "/pmt")) {
        const std::string text = file_text(entry.path());
        capture_builder c;
        c.pat({{1, 0x100}});
        c.section(0x100, octets(text.begin(), text.end()));
        c.payload(0x100);
        const road_step steps[] = {{.pkt = c.at(0)}, {.pkt = c.at(1)}};
        ASSERT_NO_FATAL_FAILURE(
            walk("pmt-" + entry.path().filename().string(), every_check(), steps));
    }
}

TEST(roads, know_the_stream_types_they_knew)
{
    log_set_modules(&g_log, DEBUG_level);
    for (const bool iso : {false, true}) {
        tsan_config cfg = every_check();
        cfg.iso_rules = iso;
        capture_builder c;
        std::vector<pat_entry> programs(8);
        for (unsigned i = 0; i < programs.size(); ++i)
            programs[i] = {i + 1, 0x100 + i};
        c.pat(programs);
        for (unsigned i = 0; i < programs.size(); ++i) {
            pmt_fields pmt{.program = i + 1, .pcr_pid = 0x200};
            for (unsigned type = 32 * i; type < 32 * (i + 1); ++type)
                pmt.streams.push_back({type, 0x200 + type});
            c.pmt(0x100 + i, pmt);
        }
        std::vector<road_step> steps;
        for (size_t i = 0; i < c.count(); ++i)
            steps.push_back({.pkt = c.at(i)});
        ASSERT_NO_FATAL_FAILURE(walk(iso ? "types-iso" : "types", cfg, steps));
    }
}
