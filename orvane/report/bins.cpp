#include "report/bins.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double MAX_PLACE = 1e15; // bin numbers stay far inside 64 bits

int64_t number_of(const bin_series &series, double place)
{
    return static_cast<int64_t>(std::floor(place / series.width));
}

int64_t half(int64_t number) { return (number - (number < 0 ? 1 : 0)) / 2; }

void double_width(bin_series *series)
{
    const int64_t first = half(series->first);
    std::vector<bin> joined;
    for (size_t i = 0; i < series->bins.size(); ++i) {
        const auto at = static_cast<size_t>(half(series->first + static_cast<int64_t>(i)) - first);
        joined.resize(at + 1);
        joined[at].count += series->bins[i].count;
        joined[at].max = std::max(joined[at].max, series->bins[i].max);
    }
    series->bins = std::move(joined);
    series->first = first;
    series->width *= 2;
}

// Whether the bins reach from the one with this number to all others.
bool reaches(const bin_series &series, int64_t number)
{
    const int64_t last = series.first + static_cast<int64_t>(series.bins.size()) - 1;
    return std::max(last, number) - std::min(series.first, number) < static_cast<int64_t>(MAX_BINS);
}

} // namespace

void add_to_bins(bin_series *series, double place, uint64_t value, double unit)
{
    place = std::clamp(place, -MAX_PLACE, MAX_PLACE);
    if (series->width <= 0) {
        series->width = unit;
        series->first = number_of(*series, place);
    }
    while (!reaches(*series, number_of(*series, place)))
        double_width(series);
    const int64_t number = number_of(*series, place);
    if (number < series->first) {
        series->bins.insert(series->bins.begin(), static_cast<size_t>(series->first - number), {});
        series->first = number;
    }
    const auto at = static_cast<size_t>(number - series->first);
    if (at >= series->bins.size())
        series->bins.resize(at + 1);
    ++series->bins[at].count;
    series->bins[at].max = std::max(series->bins[at].max, value);
}

void widen_bins(bin_series *series, double width)
{
    while (series->width > 0 && series->width < width)
        double_width(series);
}
