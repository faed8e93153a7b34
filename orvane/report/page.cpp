#include "report/page.h"

#include "report/chart.h"
#include "report/templates.h"
#include "report/text.h"

#include <algorithm>
#include <numeric>

namespace {

using kainjow::mustache::data;
using kainjow::mustache::mustache;

constexpr size_t PAGE_BYTES = 980'000; // at most
constexpr size_t MAX_ROWS = 1500;      // captures in the table
constexpr size_t MAX_COUNTS = 200;     // kinds and PIDs in a table
constexpr size_t FEW = 3;              // programmes whose tables are shown open

// How a status looks: never by its colour alone.
struct look {
    const char *css, *mark, *word;
};

look look_of(int status)
{
    switch (status) {
    case STATUS_WITHIN:
        return {"good", "\u2713", "within limits"};
    case STATUS_EXCEEDED:
        return {"bad", "\u2717", "limit exceeded"};
    case STATUS_UNREADABLE:
        return {"cut", "!", "not readable"};
    case STATUS_NOTHING:
        return {"cut", "!", "nothing to analyse"};
    default:
        return {"cut", "!", "cut short"};
    }
}

look look_of(const judged_capture &capture)
{
    look l = look_of(capture.verdict.status);
    if (capture.verdict.status == STATUS_WITHIN && capture.verdict.results.empty())
        l = {total_alerts(capture.tally) == 0 ? "good" : "cut", "\u2022", "no limits"};
    if (is_unjudged(capture.tally, capture.verdict))
        l.word = "not judged";
    return l;
}

void set_look(data *entry, const look &l, const char *word_name)
{
    entry->set("class", l.css);
    entry->set("mark", l.mark);
    entry->set(word_name, l.word);
}

std::string shown(const std::optional<uint64_t> &value)
{
    return value ? std::to_string(*value) : "\u2013";
}

std::string megabytes(const std::optional<uint64_t> &bytes)
{
    return bytes ? short_number(static_cast<double>(*bytes) / 1e6, 1) : "\u2013";
}

std::string most_frequent(const capture_tally &tally)
{
    line_kind best{};
    for (size_t i = 0; i < ALERT_KINDS; ++i)
        if (alerts_of(tally, static_cast<line_kind>(i)) > alerts_of(tally, best))
            best = static_cast<line_kind>(i);
    const uint64_t count = alerts_of(tally, best);
    return count == 0 ? "\u2013"
                      : std::string(info_of(best).name) + " \u00d7 " + std::to_string(count);
}

std::string section_id(size_t number) { return "c" + std::to_string(number + 1); }

data row_of(const judged_capture &capture)
{
    const capture_tally &tally = capture.tally;
    data row;
    row.set("name", clean_text(tally.name));
    row.set("status", std::to_string(capture.verdict.status));
    set_look(&row, look_of(capture), "verdict");
    row.set("alerts", std::to_string(total_alerts(tally)));
    row.set("alerts_shown", std::to_string(total_alerts(tally)));
    row.set("packets", std::to_string(tally.packets.value_or(0)));
    row.set("packets_shown", shown(tally.packets));
    row.set("bytes", std::to_string(tally.bytes.value_or(0)));
    row.set("megabytes", megabytes(tally.bytes));
    row.set("programmes", std::to_string(tally.programmes.size()));
    row.set("frequent", most_frequent(tally));
    return row;
}

// ---- A capture

void add_fact(data *facts, const char *label, const std::string &value)
{
    data fact;
    fact.set("label", label);
    fact.set("value", value);
    facts->push_back(fact);
}

data facts_of(const capture_tally &tally)
{
    data facts(data::type::list);
    add_fact(&facts, "Alerts", std::to_string(total_alerts(tally)));
    if (tally.packets)
        add_fact(&facts, "Packets", shown(tally.packets));
    if (tally.analysed)
        add_fact(&facts, "Analysed", shown(tally.analysed));
    if (tally.skipped)
        add_fact(&facts, "Skipped at the start", shown(tally.skipped));
    add_fact(&facts, "Programmes", std::to_string(tally.programmes.size()));
    if (tally.damaged > 0)
        add_fact(&facts, "Damaged lines", std::to_string(tally.damaged));
    if (tally.place)
        add_fact(&facts, "Ended at packet", shown(tally.place));
    if (tally.checks && tally.checks->iso)
        add_fact(&facts, "Rules", "ISO/IEC 13818-1");
    return facts;
}

data limits_of(const capture_verdict &verdict)
{
    data limits(data::type::list);
    for (const limit_result &result : verdict.results) {
        data limit;
        limit.set("name", limit_name(result.limit));
        limit.set("max", std::to_string(result.limit.max));
        limit.set("count", result.unjudged.empty() ? std::to_string(result.count) : "\u2013");
        look l = look_of(result.is_exceeded() ? STATUS_EXCEEDED : STATUS_WITHIN);
        if (!result.unjudged.empty())
            l = {"cut", "!", result.unjudged.data()};
        set_look(&limit, l, "result");
        limits.push_back(limit);
    }
    return limits;
}

data counts_of(const capture_tally &tally)
{
    data counts(data::type::list);
    size_t room = MAX_COUNTS;
    for (const auto &[key, lane] : tally.lanes) {
        if (room-- == 0)
            break;
        data entry;
        entry.set("kind", std::string(info_of(key.kind).name));
        entry.set("pid", key.pid < 0 ? "\u2013" : std::to_string(key.pid));
        entry.set("count", std::to_string(lane.count));
        entry.set("max", has_distance(key.kind) ? std::to_string(lane.max) : "\u2013");
        counts.push_back(entry);
    }
    return counts;
}

data average_entry(const char *name, const std::optional<average_record> &average)
{
    data entry;
    entry.set("name", name);
    if (!average || average->count == 0)
        return entry;
    entry.set("count", std::to_string(average->count));
    entry.set("min", std::to_string(average->min));
    entry.set("max", std::to_string(average->max));
    entry.set(
        "mean",
        short_number(static_cast<double>(average->sum) / static_cast<double>(average->count), 2));
    return entry;
}

std::string class_name(char letter)
{
    switch (letter) {
    case 'V':
        return "video";
    case 'A':
        return "audio";
    case 'S':
        return "private data";
    default:
        return "other";
    }
}

data tracks_of(const programme_record &programme)
{
    data tracks(data::type::list);
    for (const track_record &track : programme.tracks) {
        data entry;
        entry.set("pid", std::to_string(track.pid));
        entry.set("class", class_name(track.letter));
        entry.set("type", clean_text(track.type));
        entry.set("packets", shown(track.packets));
        entry.set("analysed", shown(track.analysed));
        tracks.push_back(entry);
    }
    return tracks;
}

data programmes_of(const capture_tally &tally)
{
    data programmes(data::type::list);
    for (size_t i = 0; i < tally.programmes.size(); ++i) {
        const programme_record &programme = tally.programmes[i];
        if (programme.tracks.empty() && !programme.has_counters)
            continue; // a tag named it, no more is known
        data averages(data::type::list);
        averages.push_back(average_entry("PCR interval", programme.pcr_interval));
        averages.push_back(average_entry("Time stamp to PCR", programme.pcr_distance));
        averages.push_back(average_entry("Audio to video", programme.av_distance));
        data entry;
        entry.set("index", std::to_string(i));
        entry.set(
            "about",
            (programme.pmt_pid ? "PMT PID " + std::to_string(*programme.pmt_pid) + ", " : "") +
                counted(programme.tracks.size(), "track"));
        entry.set("tracks", tracks_of(programme));
        entry.set("averages", averages);
        if (tally.programmes.size() <= FEW)
            entry.set("is_open", data(true));
        programmes.push_back(entry);
    }
    return programmes;
}

std::string section_of(const judged_capture &capture, const std::string &id)
{
    const auto &[tally, verdict] = capture;
    data section;
    section.set("id", id);
    section.set("name", clean_text(tally.name));
    set_look(&section, look_of(capture), "verdict");
    section.set("text",
                clean_text((tally.reason.empty() ? "" : tally.reason + "; ") + alerts_text(tally)));
    section.set("facts", facts_of(tally));
    section.set("has_limits", data(!verdict.results.empty()));
    section.set("limits", limits_of(verdict));
    section.set("timelines", timelines_of(tally));
    section.set("plots", plots_of(tally));
    section.set("has_alerts", data(!tally.lanes.empty()));
    if (tally.lanes.size() <= MAX_BINS / 4)
        section.set("is_short", data(true));
    section.set("counts", counts_of(tally));
    if (tally.lanes.size() > MAX_COUNTS)
        section.set("more_counts",
                    std::to_string(tally.lanes.size() - MAX_COUNTS) + " more are left out.");
    section.set("programmes", programmes_of(tally));
    return mustache(TEMPLATE_SECTION).render(section);
}

// ---- The page

// Captures by how much they have to tell: bad ends first, then alerts.
std::vector<size_t> by_weight(const report_run &run)
{
    std::vector<size_t> order(run.captures.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::stable_sort(order.begin(), order.end(), [&run](size_t a, size_t b) {
        const auto weight = [&run](size_t i) {
            return std::pair(run.captures[i].verdict.status, total_alerts(run.captures[i].tally));
        };
        return weight(a) > weight(b);
    });
    return order;
}

// The sections that find room, by the number of their capture; the others are empty.
std::vector<std::string> make_sections(const report_run &run, size_t room)
{
    std::vector<std::string> sections(run.captures.size());
    for (const size_t i : by_weight(run)) {
        std::string section = section_of(run.captures[i], section_id(i));
        if (section.size() > room)
            break;
        room -= section.size();
        sections[i] = std::move(section);
    }
    return sections;
}

std::string headline(const report_run &run)
{
    const size_t total = run.captures.size();
    const auto good = static_cast<size_t>(
        std::count_if(run.captures.begin(), run.captures.end(),
                      [](const judged_capture &c) { return c.verdict.status == STATUS_WITHIN; }));
    if (total == 1)
        return std::string("One capture: ") + look_of(run.captures[0]).word;
    if (good == total)
        return "All " + std::to_string(total) + " captures " +
               (run.limits.empty() ? "analysed, no limits" : "within limits");
    return std::to_string(total - good) + " of " + std::to_string(total) +
           (total - good == 1 ? " captures has a problem" : " captures have a problem");
}

std::string summary_text(const report_run &run)
{
    uint64_t alerts = 0;
    uint64_t bytes = 0;
    for (const judged_capture &capture : run.captures) {
        alerts += total_alerts(capture.tally);
        bytes += capture.tally.bytes.value_or(0);
    }
    std::string text = counted(alerts, "alert");
    if (bytes > 0)
        text += " in " + short_number(static_cast<double>(bytes) / 1e6, 1) + " MB";
    return text;
}

data rows_of(const report_run &run, const std::vector<std::string> &sections)
{
    std::vector<size_t> kept = by_weight(run);
    kept.resize(std::min(kept.size(), MAX_ROWS));
    std::sort(kept.begin(), kept.end()); // as they were named
    data rows(data::type::list);
    for (const size_t i : kept) {
        data row = row_of(run.captures[i]);
        if (i < sections.size() && !sections[i].empty())
            row.set("id", section_id(i));
        rows.push_back(row);
    }
    return rows;
}

std::string render_page(const report_run &run, const std::vector<std::string> &sections)
{
    data page;
    const int status = run.captures.empty() ? int{STATUS_NOTHING} : run.status;
    page.set("title", "orvreport: " + headline(run));
    page.set("style", TEMPLATE_STYLE);
    page.set("script", TEMPLATE_SORT);
    page.set("headline", headline(run));
    page.set("summary", summary_text(run));
    const look l = run.captures.size() == 1 ? look_of(run.captures[0]) : look_of(status);
    set_look(&page, l, "verdict");
    page.set("rows", rows_of(run, sections));
    const auto without =
        static_cast<size_t>(std::count(sections.begin(), sections.end(), std::string()));
    if (without > 0 && !sections.empty())
        page.set("left_out", std::to_string(without) +
                                 (without == 1 ? " capture is" : " captures are") +
                                 " in this table alone" +
                                 (run.captures.size() > MAX_ROWS
                                      ? ", of which it shows the worst " + std::to_string(MAX_ROWS)
                                      : "") +
                                 ": a page has room for a megabyte.");
    page.set("sections", std::accumulate(sections.begin(), sections.end(), std::string()));
    return mustache(TEMPLATE_PAGE).render(page);
}

} // namespace

void write_page(output_file *out, const report_run &run)
{
    if (!is_open(*out))
        return;
    const size_t frame =
        render_page(run, {}).size() + 20 * std::min(run.captures.size(), MAX_ROWS) + 500;
    write_output(out,
                 render_page(run, make_sections(run, PAGE_BYTES > frame ? PAGE_BYTES - frame : 0)));
}
