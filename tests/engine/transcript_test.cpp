// Transcripts of the engine: captures and what a host does, in words, and what comes of it.
//
// In transcripts/*.txt "== TITLE" begins a scene. Lines with "by" follow for the rules - default,
// iso or both - and the settings that the engine is made with: "set" and "track" with words of -A
// and -k, "silence" with packets until a stream is silent, "no alerts". Every other line makes
// packets or acts, with numbers as in C and octets as hexadecimal digits; "3x " does it three
// times. A line with
// "?" asks, and may end with what the lines of the answer have in common. Answers stand below:
// behind
// "|", or behind the names of the rules where they differ.
//
// ORVSCAN_RECORD=1 build-release/engine_tests --gtest_filter='*transcript*' writes answers anew.

#include "engine/alert_line.h"
#include "engine/engine.h"
#include "support/lines.h"
#include "tsanalyze/tag.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>

namespace {

// The words of a line: those with "=" by their names, the others in their order.
struct words {
    explicit words(const std::string &line)
    {
        std::istringstream in(line);
        for (std::string word; in >> word;)
            if (const size_t at = word.find('='); at != std::string::npos)
                named[word.substr(0, at)] = word.substr(at + 1);
            else
                plain.push_back(word);
    }
    static unsigned to_number(const std::string &text)
    {
        return static_cast<unsigned>(std::stoull(text, nullptr, 0));
    }
    static octets to_octets(const std::string &digits)
    {
        octets out;
        for (size_t at = 0; at < digits.size(); at += 2)
            out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(at, 2), nullptr, 16)));
        return out;
    }
    bool has(const char *word) const { return std::ranges::find(plain, word) != plain.end(); }
    unsigned at(size_t index) const { return to_number(plain.at(index)); }
    unsigned count() const { return plain.size() > 2 ? at(2) : 1; }
    std::optional<uint64_t> value(const char *name) const
    {
        const auto it = named.find(name);
        return it == named.end() ? std::nullopt
                                 : std::optional(std::stoull(it->second, nullptr, 0));
    }
    unsigned value(const char *name, unsigned otherwise) const
    {
        return static_cast<unsigned>(value(name).value_or(otherwise));
    }
    octets data(const char *name) const
    {
        return named.contains(name) ? to_octets(named.at(name)) : octets{};
    }
    // The words NUMBER:PID and NUMBER:PID:OCTETS.
    std::vector<es_entry> entries() const
    {
        std::vector<es_entry> out;
        for (std::string word : plain) {
            std::ranges::replace(word, ':', ' ');
            std::istringstream in(word);
            std::string first, pid, descriptors;
            if (in >> first >> pid >> descriptors || !pid.empty())
                out.push_back({to_number(first), to_number(pid), to_octets(descriptors)});
        }
        return out;
    }

    std::vector<std::string> plain;
    std::map<std::string, std::string> named;
};

// An engine whose alerts are told as data, too.
struct stage : engine {
    explicit stage(const tsan_config &cfg) : engine(cfg)
    {
        const auto tell = [](void *opaque, const tsan_alert *alert) {
            *static_cast<std::string *>(opaque) += line_of(*alert);
        };
        tsan_set_alert_callback(t, tell, &told);
    }

    std::string told;
    bool is_told = true;
};

void add_section(capture_builder *c, unsigned pid, octets section, const words &w)
{
    const octets changed = w.data("changed"); // the number of an octet, then what it becomes
    if (!changed.empty())
        section.at(changed.at(0) % section.size()) = changed.at(1);
    if (w.has("whole"))
        c->sections(pid, {section});
    else
        c->section(pid, section);
}

void add_pat(stage *e, const words &w)
{
    std::vector<pat_entry> programs;
    for (const es_entry &entry : w.entries())
        programs.push_back({entry.type, entry.pid});
    const pat_fields fields{.version = w.value("version", 0),
                            .section = w.value("section", 0),
                            .last_section = w.value("last", 0)};
    add_section(&e->c, 0, make_pat_section(programs, fields), w);
}

void add_pmt(stage *e, const words &w)
{
    const pmt_fields fields{.program = w.value("program", 1),
                            .pcr_pid = w.value("pcr", 0x101),
                            .version = w.value("version", 0),
                            .is_current = !w.has("next"),
                            .descriptors = w.data("descriptors"),
                            .streams = w.entries()};
    add_section(&e->c, w.at(1), make_pmt_section(fields), w);
}

void add_packet(stage *e, const words &w)
{
    const auto length = w.value("adaptation");
    e->c.packet(w.at(1), {.unit_start = w.has("start"),
                          .has_payload = !w.has("empty"),
                          .discontinuity = w.has("discontinuity"),
                          .damaged = w.has("damaged"),
                          .scrambled = w.has("scrambled"),
                          .pcr = w.value("pcr"),
                          .adaptation = length ? std::optional<unsigned>(*length) : std::nullopt,
                          .payload = w.data("payload")});
}

void add_pes(stage *e, const words &w)
{
    octets header = pes_header({.pts = w.value("pts"), .dts = w.value("dts")});
    packet_fields fields{.unit_start = true, .pcr = w.value("pcr"), .payload = header};
    if (const unsigned room = w.value("room", 0); room > 0) {
        fields.payload.resize(room);
        fields.adaptation = 183 - room;
    }
    e->c.packet(w.at(1), fields);
}

void pass_time(stage *, const words &w)
{
    g_now.tv_nsec += std::lround(1e9 * std::stod(w.plain.at(1)));
    g_now = {g_now.tv_sec + g_now.tv_nsec / 1'000'000'000, g_now.tv_nsec % 1'000'000'000};
}

const std::map<std::string, void (*)(stage *, const words &)> COMMANDS = {
    {"programme", [](stage *e, const words &) { one_program(&e->c); }},
    {"pat", add_pat},
    {"pmt", add_pmt},
    {"packet", add_packet},
    {"pes", add_pes},
    {"pcr", [](stage *e, const words &w) { e->c.pcr(w.at(1), *w.value("at")); }},
    {"section", [](stage *e, const words &w) { e->c.section(w.at(1), w.data("octets")); }},
    {"payload", [](stage *e, const words &w) { e->c.payload(w.at(1), int(w.count())); }},
    {"skip", [](stage *e, const words &w) { e->c.skip_cc(w.at(1), w.count()); }},
    {"counter", [](stage *e, const words &w) { e->c.set_cc(w.at(1), w.at(2)); }},
    {"again",
     [](stage *e, const words &) {
         e->c.raw({e->c.at(e->fed - 1), e->c.at(e->fed)});
     }},
    {"clock", pass_time},
    {"level", [](stage *, const words &w) { log_set_modules(&g_log, int(w.at(1))); }},
    {"next-segment", [](stage *e, const words &) { tsan_next_seg(e->t); }},
    {"new-period", [](stage *e, const words &) { tsan_reset_local_stats(e->t); }},
    {"stat-lines", [](stage *e, const words &) { tsan_alog_stats(e->t); }},
    {"lost-sync", [](stage *e, const words &) { tsan_alert_lostsync(e->t); }},
    {"number", [](stage *e, const words &w) { tsan_set_pidx(e->t, w.at(1)); }},
    {"untold",
     [](stage *e, const words &) {
         tsan_set_alert_callback(e->t, nullptr, nullptr);
         e->is_told = false;
     }},
};

std::string streams(stage *e)
{
    std::ostringstream out;
    for (size_t i = 0; i < e->t->nprogs; ++i) {
        const program_info &pg = e->t->pg[i];
        out << i << ": PMT " << e->t->pmt_pid[i] << " PCR " << pg.pcr_pid;
        for (const stream_info &si : std::span(pg.stm, pg.nstreams))
            out << ", " << si.stype << " " << si.pid << " " << si.pcount;
        out << "\n";
    }
    return out.str();
}

std::string report(stage *e)
{
    return written([e](FILE *fp) { tsan_dump_stats(fp, e->t); });
}

std::string default_settings(stage *)
{
    tsan_config cfg;
    tsan_default_config(&cfg);
    return written([&cfg](FILE *fp) { tsan_dump_config(fp, "analyzer", &cfg); });
}

// Every record has to say what its line says.
std::string alerts(stage *e)
{
    const std::string text = e->alerts();
    std::string lines;
    for (const std::string &line : lines_with(text, "ALERT "))
        lines += e->is_told && line.starts_with("ALERT ") ? line + "\n" : "";
    for (const auto &[name, numbers] :
         {std::pair{"PAT[", "-1:-1["}, {"pkt[", "-1:-1["}, {":M[", ":-1["}})
        replace_all(&lines, name, numbers);
    EXPECT_EQ(std::exchange(e->told, ""), lines);
    return text;
}

const std::map<std::string, std::string (*)(stage *)> QUESTIONS = {
    {"alerts", alerts},
    {"log", [](stage *e) { return e->log(); }},
    {"report", report},
    {"default-settings", default_settings},
    {"streams", streams},
    {"tag", [](stage *e) { return std::string(tag_text(e->t).text) + "\n"; }},
    {"lost-sync", [](stage *e) { return std::to_string(tsan_alert_lostsync(e->t)) + "\n"; }},
    {"period-ends",
     [](stage *e) { return std::to_string(tsan_check_dump_stats(nullptr, e->t)) + "\n"; }},
};

typedef std::vector<std::string> lines;

lines answer(stage *e, const words &w, const std::string &line)
{
    const std::string &name = w.plain.at(1);
    const size_t common = line.find(name) + name.size() + 1;
    return lines_with(QUESTIONS.at(name)(e), line.substr(std::min(common, line.size())));
}

lines do_line(stage *e, const std::string &line)
{
    size_t at = 0;
    int count = isdigit(line[0]) != 0 ? std::stoi(line, &at) : 1;
    at += at > 0 ? 2 : 0; // behind "x "
    for (; count > 0; --count) {
        std::istringstream parts(line.substr(at));
        for (std::string part; std::getline(parts, part, ';');) {
            const words w(part);
            if (w.plain.at(0) == "?")
                return answer(e, w, part);
            COMMANDS.at(w.plain[0])(e, w);
            e->feed();
        }
    }
    return {};
}

bool is_answer(const std::string &line)
{
    return line.starts_with("| ") || line == "|" || line.starts_with("default| ") ||
           line.starts_with("iso| ");
}

// What a scene answers by these rules: to each of its lines.
std::vector<lines> play(const lines &scene, bool iso)
{
    tsan_config cfg = every_check();
    cfg.iso_rules = iso;
    std::optional<stage> e;
    std::vector<lines> answers(scene.size());
    for (size_t i = 0; i < scene.size(); ++i) {
        const std::string &line = scene[i];
        if (line.empty() || line[0] == '#' || line[0] == '=' || line.starts_with("by ") ||
            is_answer(line))
            continue;
        if (line.starts_with("track "))
            tsan_xtrack_opt(line.c_str() + 6, &cfg);
        else if (line.starts_with("set "))
            EXPECT_EQ(tsan_cli_opt(line.c_str() + 4, &cfg), TSAN_OK) << line;
        else if (line.starts_with("silence "))
            cfg.max_ndat_pcount = words(line).at(1);
        else if (line.starts_with("period "))
            cfg.dump_stats_period = words(line).at(1);
        else if (line == "no log")
            cfg.no_rlog = true;
        else if (line == "no alerts")
            cfg.access_log_alerts = false;
        else
            try {
                answers[i] = do_line(e ? &*e : &e.emplace(cfg), line);
            } catch (const std::logic_error &problem) { // no such word, or no number
                ADD_FAILURE() << line << ": " << problem.what();
            }
    }
    return answers;
}

// The text of a scene with the answers it gives.
std::string played(const lines &scene)
{
    const bool by_iso = std::ranges::count(scene, "by iso") > 0,
               by_both = std::ranges::count(scene, "by both") > 0;
    const auto first = play(scene, by_iso), second = by_both ? play(scene, true) : first;
    std::string text;
    for (size_t i = 0; i < scene.size(); ++i) {
        if (is_answer(scene[i]))
            continue;
        text += scene[i] + "\n";
        for (const std::string &line : first[i])
            text += (first[i] == second[i] ? "| " : "default| ") + line + "\n";
        for (const std::string &line : first[i] == second[i] ? lines{} : second[i])
            text += "iso| " + line + "\n";
    }
    return text;
}

struct engine_scenes : testing::TestWithParam<const char *> {};

} // namespace

TEST_P(engine_scenes, go_as_the_transcript_says)
{
    const std::string path = ORVSCAN_TESTS "/transcripts/" + std::string(GetParam());
    const std::string kept = file_text(path);
    std::string text;
    for (size_t start = 0, end = 0; start < kept.size(); start = end) {
        end = std::min(kept.find("\n== ", start), kept.size() - 1) + 1;
        const std::string scene = kept.substr(start, end - start);
        const std::string now = played(split_lines(scene));
        EXPECT_EQ(now, scene);
        text += now;
    }
    if (getenv("ORVSCAN_RECORD") != nullptr)
        std::ofstream(path) << text;
}
INSTANTIATE_TEST_SUITE_P(the, engine_scenes,
                         testing::Values("checks.txt", "iso.txt", "tables.txt"));
