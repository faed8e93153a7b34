#include "report/chart.h"

#include "report/text.h"
#include "report/verdict.h"

#include <algorithm>
#include <cmath>

namespace {

using kainjow::mustache::data;

// Timelines, in units of the drawing.
constexpr double LEFT = 176, RIGHT = 900, LANE = 26, BAR = 20, TOP = 8;
constexpr size_t MAX_LANES = 16; // of a timeline; each may hold MAX_BINS bars
// Plots.
constexpr double PLOT_LEFT = 64, PLOT_RIGHT = 940, PLOT_TOP = 14, PLOT_BOTTOM = 206;
constexpr size_t MAX_SERIES = 4;

// A circle, a square, a diamond and a triangle, from their middle.
constexpr const char *SHAPES[MAX_SERIES] = {"m-4 0a4 4 0 1 0 8 0a4 4 0 1 0-8 0z",
                                            "m-3.5-3.5h7v7h-7z", "m0-5l5 5l-5 5l-5-5z",
                                            "m0-5l5 8.5h-10z"};

struct axis {
    double from = 0, till = 1;  // of the values
    double left = 0, right = 1; // of the drawing
    double at(double value) const { return left + (value - from) / (till - from) * (right - left); }
};

struct lane_view {
    lane_key key{};
    const alert_lane *lane = nullptr;
    bin_series series;
    uint64_t count = 0; // alerts in the series
};

std::string place(double value) { return short_number(value, 1); }

// 1, 2 or 5 times a power of ten: at most `count` steps fill the range.
double step_for(double range, double count)
{
    const double least = std::max(range / count, 1e-9);
    const double power = std::pow(10, std::floor(std::log10(least)));
    for (const double factor : {1.0, 2.0, 5.0})
        if (factor * power >= least)
            return factor * power;
    return 10 * power;
}

std::string lane_name(const lane_key &key)
{
    std::string name(info_of(key.kind).name);
    return key.pid < 0 ? name : name + " PID " + std::to_string(key.pid);
}

const char *family(line_kind kind)
{
    switch (kind) {
    case line_kind::cc_brk:
    case line_kind::cc_rst:
    case line_kind::cc_mlr:
        return "continuity";
    case line_kind::pcr_freq:
    case line_kind::pcr_delta:
        return "clock";
    case line_kind::av_deltaplus:
    case line_kind::av_delta0:
        return "sound";
    case line_kind::pat_diff:
    case line_kind::pmt_diff:
        return "table";
    default:
        return "presence";
    }
}

// The series of the lanes that are wanted, in bins of one width.
template <class wanted>
std::vector<lane_view> views_of(const capture_tally &tally, bool by_time, const wanted &is_wanted)
{
    std::vector<lane_view> views;
    double width = 0;
    for (const auto &[key, lane] : tally.lanes) {
        const bin_series &series = by_time ? lane.by_time : lane.by_packet;
        if (series.bins.empty() || !is_wanted(key.kind))
            continue;
        views.push_back({key, &lane, series});
        for (const bin &b : series.bins)
            views.back().count += b.count;
        width = std::max(width, series.width);
    }
    for (lane_view &view : views)
        widen_bins(&view.series, width);
    return views;
}

// The largest ones, in the order they had.
void keep_largest(std::vector<lane_view> *views, size_t max)
{
    if (views->size() <= max)
        return;
    const auto by_count = [](const lane_view &a, const lane_view &b) { return a.count > b.count; };
    const auto by_key = [](const lane_view &a, const lane_view &b) { return a.key < b.key; };
    std::stable_sort(views->begin(), views->end(), by_count);
    views->resize(max);
    std::sort(views->begin(), views->end(), by_key);
}

// From the beginning of the capture to its last alert, the same in all its charts.
axis axis_of(const capture_tally &tally, bool by_time, double left, double right)
{
    axis x{0, 0, left, right};
    for (const auto &[key, lane] : tally.lanes) {
        const bin_series &series = by_time ? lane.by_time : lane.by_packet;
        const auto first = static_cast<double>(series.first);
        const auto count = static_cast<double>(series.bins.size());
        x.from = std::min(x.from, first * series.width);
        x.till = std::max(x.till, (first + count) * series.width);
    }
    return x;
}

data ticks_of(const axis &x)
{
    data ticks(data::type::list);
    const double step = step_for(x.till - x.from, 10);
    const int digits = std::max(3, static_cast<int>(std::ceil(-std::log10(step))));
    // NOLINTNEXTLINE(clang-analyzer-security.FloatLoopCounter): a dozen steps, above rounding
    for (double value = std::ceil(x.from / step) * step; value <= x.till; value += step) {
        data tick;
        tick.set("x", place(x.at(value)));
        tick.set("label", short_number(value, digits));
        ticks.push_back(tick);
    }
    return ticks;
}

std::string bin_tip(const lane_view &view, size_t i, bool by_time)
{
    const double from =
        static_cast<double>(view.series.first + static_cast<int64_t>(i)) * view.series.width;
    const bin &b = view.series.bins[i];
    const std::string unit = by_time ? " s" : "";
    std::string tip = by_time ? "" : "packet ";
    tip += short_number(from, 3);
    if (by_time || view.series.width > 1)
        tip += " to " + short_number(from + view.series.width, 3) + unit;
    tip += ": " + counted(b.count, "alert");
    if (has_distance(view.key.kind))
        tip += ", largest " + std::to_string(b.max) + " ms";
    return tip;
}

uint64_t largest_bin(const std::vector<lane_view> &views)
{
    uint64_t largest = 1;
    for (const lane_view &view : views)
        for (const bin &b : view.series.bins)
            largest = std::max(largest, b.count);
    return largest;
}

// A bar's height grows with the square root of its count: one alert among thousands is seen.
data bars_of(const lane_view &view, const axis &x, double base, uint64_t largest, bool by_time)
{
    data bars(data::type::list);
    for (size_t i = 0; i < view.series.bins.size(); ++i) {
        const bin &b = view.series.bins[i];
        if (b.count == 0)
            continue;
        const double from =
            static_cast<double>(view.series.first + static_cast<int64_t>(i)) * view.series.width;
        const double height =
            4 + (BAR - 4) * std::sqrt(static_cast<double>(b.count) / static_cast<double>(largest));
        data bar;
        bar.set("x", place(x.at(from)));
        bar.set("y", place(base - height));
        bar.set("w", place(std::max(x.at(from + view.series.width) - x.at(from) - 0.5, 2.5)));
        bar.set("h", place(height));
        bar.set("tip", bin_tip(view, i, by_time));
        bars.push_back(bar);
    }
    return bars;
}

data lanes_of(const std::vector<lane_view> &views, const axis &x, bool by_time)
{
    data lanes(data::type::list);
    const uint64_t largest = largest_bin(views);
    double base = TOP + LANE - 3;
    for (const lane_view &view : views) {
        data lane;
        lane.set("name", lane_name(view.key));
        lane.set("class", family(view.key.kind));
        lane.set("base", place(base));
        lane.set("text_y", place(base - 5));
        lane.set("count", std::to_string(view.count));
        lane.set("bins", bars_of(view, x, base, largest, by_time));
        lanes.push_back(lane);
        base += LANE;
    }
    return lanes;
}

std::string describe_lanes(const std::vector<lane_view> &views)
{
    std::string text;
    for (const lane_view &view : views)
        text +=
            (text.empty() ? "" : "; ") + lane_name(view.key) + ": " + std::to_string(view.count);
    return text;
}

void add_timeline(data *timelines, const capture_tally &tally, bool by_time)
{
    std::vector<lane_view> views = views_of(tally, by_time, [](line_kind) { return true; });
    const size_t total = views.size();
    keep_largest(&views, MAX_LANES);
    if (views.empty())
        return;
    const axis x = axis_of(tally, by_time, LEFT, RIGHT);
    const double bottom = TOP + LANE * static_cast<double>(views.size());
    data timeline;
    timeline.set("title",
                 by_time ? "Alerts by stream time" : "Alerts without stream time, by packet");
    timeline.set("description", describe_lanes(views));
    timeline.set("axis", by_time ? "seconds" : "packet");
    timeline.set("bottom", place(bottom));
    timeline.set("label_y", place(bottom + 14));
    timeline.set("axis_y", place(bottom + 14));
    timeline.set("height", place(bottom + 20));
    timeline.set("ticks", ticks_of(x));
    timeline.set("lanes", lanes_of(views, x, by_time));
    if (total > views.size())
        timeline.set("more", std::to_string(total - views.size()) +
                                 " more lanes with fewer alerts are in the table below.");
    timelines->push_back(timeline);
}

// ---- Plots

struct plot_kind {
    const char *title;
    line_kind kinds[2];
    uint64_t check_record::*threshold;
};

constexpr plot_kind PLOTS[] = {
    {"PCR intervals of alerts",
     {line_kind::pcr_freq, line_kind::pcr_freq},
     &check_record::pcr_interval_ms},
    {"Distances of time stamps to the PCR",
     {line_kind::pcr_delta, line_kind::pcr_delta},
     &check_record::pcr_distance_ms},
    {"Distances of audio to video",
     {line_kind::av_deltaplus, line_kind::av_delta0},
     &check_record::av_distance_ms},
};

data dots_of(const lane_view &view, const axis &x, const axis &y, bool by_time)
{
    data dots(data::type::list);
    for (size_t i = 0; i < view.series.bins.size(); ++i) {
        if (view.series.bins[i].count == 0)
            continue;
        const double middle =
            (static_cast<double>(view.series.first + static_cast<int64_t>(i)) + 0.5) *
            view.series.width;
        data dot;
        dot.set("x", place(x.at(middle)));
        dot.set("y", place(y.at(static_cast<double>(view.series.bins[i].max))));
        dot.set("tip", lane_name(view.key) + ", " + bin_tip(view, i, by_time));
        dots.push_back(dot);
    }
    return dots;
}

data rows_of(const axis &y)
{
    data rows(data::type::list);
    const double step = step_for(y.till, 5);
    // NOLINTNEXTLINE(clang-analyzer-security.FloatLoopCounter): a handful of steps, from 0
    for (double value = 0; value <= y.till; value += step) {
        data row;
        row.set("y", place(y.at(value)));
        row.set("label_y", place(y.at(value) + 4));
        row.set("label", short_number(value, 3));
        rows.push_back(row);
    }
    return rows;
}

data threshold_of(const axis &y, uint64_t ms)
{
    data threshold;
    const double at = y.at(static_cast<double>(ms));
    threshold.set("y", place(at));
    threshold.set("label_y", place(at - 5)); // there is room: the axis goes on above it
    threshold.set("label", "allowed: " + std::to_string(ms) + " ms");
    return threshold;
}

void add_plot(data *plots, const capture_tally &tally, const plot_kind &kind, bool by_time)
{
    std::vector<lane_view> views = views_of(
        tally, by_time, [&kind](line_kind k) { return k == kind.kinds[0] || k == kind.kinds[1]; });
    const size_t total = views.size();
    keep_largest(&views, MAX_SERIES);
    if (views.empty())
        return;
    const uint64_t threshold = tally.checks ? *tally.checks.*kind.threshold : 0;
    uint64_t largest = 0;
    for (const lane_view &view : views)
        largest = std::max(largest, view.lane->max);
    const axis x = axis_of(tally, by_time, PLOT_LEFT, PLOT_RIGHT);
    const uint64_t highest = std::max(largest, threshold), top = highest + highest / 12 + 1;
    const axis y{0, static_cast<double>(top), PLOT_BOTTOM, PLOT_TOP};
    data series(data::type::list);
    for (size_t i = 0; i < views.size(); ++i) {
        data entry;
        entry.set("class", "s" + std::to_string(i));
        entry.set("shape", SHAPES[i]);
        entry.set("name", lane_name(views[i].key));
        entry.set("dots", dots_of(views[i], x, y, by_time));
        series.push_back(entry);
    }
    data plot;
    plot.set("title", std::string(kind.title) + (by_time ? "" : ", by packet"));
    plot.set("description", describe_lanes(views) + "; largest " + std::to_string(largest) + " ms");
    plot.set("axis", by_time ? "seconds of stream time" : "packet");
    plot.set("ticks", ticks_of(x));
    plot.set("rows", rows_of(y));
    plot.set("series", series);
    if (threshold != 0)
        plot.set("threshold", threshold_of(y, threshold));
    else
        plot.set("note", "The threshold is not known.");
    if (total > views.size())
        plot.set("note",
                 std::to_string(total - views.size()) + " PIDs with fewer alerts are not drawn.");
    plots->push_back(plot);
}

} // namespace

data timelines_of(const capture_tally &tally)
{
    data timelines(data::type::list);
    add_timeline(&timelines, tally, true);
    add_timeline(&timelines, tally, false);
    return timelines;
}

data plots_of(const capture_tally &tally)
{
    data plots(data::type::list);
    for (const plot_kind &kind : PLOTS) {
        add_plot(&plots, tally, kind, true);
        add_plot(&plots, tally, kind, false);
    }
    return plots;
}
