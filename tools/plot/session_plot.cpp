#include "tools/plot/session_plot.h"

#include <algorithm>
#include <array>
#include <iomanip>
#include <map>
#include <sstream>
#include <utility>

#include "tools/plot/gnuplot.h"

// One of the three diagrams, one below the other.
struct SessionPlot::Panel {
    const char* title;
    const char* unit;
    double StatisticsLine::*value;
    double QualityPeaks::*peak;
    int column;  // of the data blocks
    double top;  // as a part of the canvas
    bool first, last;
};

namespace {

constexpr double PANEL_HEIGHT = 0.255;
constexpr double LEFT = 0.065, RIGHT = 0.79;

// The worst call, and the next ones; all others are grey.
constexpr std::array<const char*, 6> COLOURS = {"#d62728", "#1f77b4", "#2ca02c",
                                                "#9467bd", "#ff7f0e", "#17becf"};
constexpr const char* GREY = "#b8b8b8";

bool is_near_end(const StatisticsLine& line)
{
    return line.type == "near_end";
}

TimeAxis axis_of(const std::vector<StatisticsLine>& lines)
{
    const auto [first, last] =
        std::minmax_element(lines.begin(), lines.end(),
                            [](const auto& a, const auto& b) { return a.time_s < b.time_s; });
    return {lines.front(), first->time_s, last->time_s};
}

// How the call of this rank is drawn; the first one is the worst.
std::string style_of(std::size_t rank)
{
    return (rank == 0 ? " lw 2.5 lc rgb '" : " lw 1.2 lc rgb '") + std::string(COLOURS[rank]) + "'";
}

}  // namespace

SessionPlot::SessionPlot(const std::vector<StatisticsLine>& lines) : _axis(axis_of(lines))
{
    collect_calls(lines);
    find_longest_gap();
}

void SessionPlot::collect_calls(const std::vector<StatisticsLine>& lines)
{
    std::map<std::pair<std::string, std::string>, Call> calls;
    for (const StatisticsLine& line : lines) {
        Call& call = calls[{line.gcid, line.tid}];
        (is_near_end(line) ? call.near_end : call.far_end).push_back(&line);
        call.peaks.take(line);
        _highest.take(line);
    }
    const auto earlier = [](const auto* a, const auto* b) { return a->time_s < b->time_s; };
    for (auto& [identity, call] : calls) {
        std::stable_sort(call.near_end.begin(), call.near_end.end(), earlier);
        std::stable_sort(call.far_end.begin(), call.far_end.end(), earlier);
        _calls.push_back(std::move(call));
    }
    std::stable_sort(_calls.begin(), _calls.end(), [this](const Call& a, const Call& b) {
        return a.peaks.severity(_highest) > b.peaks.severity(_highest);
    });
}

// Three times the usual interval between reports.
void SessionPlot::find_longest_gap()
{
    std::vector<double> gaps;
    for (const Call& call : _calls)
        for (const Samples* samples : {&call.near_end, &call.far_end})
            for (std::size_t i = 1; i < samples->size(); i++)
                gaps.push_back((*samples)[i]->time_s - (*samples)[i - 1]->time_s);
    if (gaps.empty())
        return;
    const auto middle = gaps.begin() + static_cast<std::ptrdiff_t>(gaps.size() / 2);
    std::nth_element(gaps.begin(), middle, gaps.end());
    _longest_gap_s = 3 * *middle;
}

std::string SessionPlot::gnuplot_script(const std::string& title) const
{
    static const std::array<Panel, 3> panels = {{
        {"Loss, %", " %", &StatisticsLine::loss_percent, &QualityPeaks::loss_percent, 2, 0.90, true,
         false},
        {"Jitter", "", &StatisticsLine::jitter, &QualityPeaks::jitter, 3, 0.61, false, false},
        {"Round-trip time", "", &StatisticsLine::round_trip, &QualityPeaks::round_trip, 4, 0.32,
         false, true},
    }};
    std::string script = data_blocks();
    script += "set multiplot\n" + titles(title) + _axis.gnuplot_script();
    for (const Panel& each : panels)
        script += diagram(each);
    return script + "unset multiplot\n";
}

// Lines of time, loss, jitter and round-trip time; an empty line breaks the curve.
std::string SessionPlot::rows(const Samples& samples) const
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(3);
    double previous_s = samples.empty() ? 0 : samples.front()->time_s;
    for (const StatisticsLine* sample : samples) {
        if (sample->time_s - previous_s > _longest_gap_s)
            text << "\n";
        previous_s = sample->time_s;
        text << _axis.place_of(sample->time_s) << " " << sample->loss_percent << " "
             << sample->jitter << " " << sample->round_trip << "\n";
    }
    return text.str();
}

// $near0, $far0, $near1 ... of the coloured calls, $grey of all others.
std::string SessionPlot::data_blocks() const
{
    std::ostringstream blocks;
    std::ostringstream grey;
    for (std::size_t i = 0; i < _calls.size(); i++) {
        const std::string near_rows = rows(_calls[i].near_end);
        const std::string far_rows = rows(_calls[i].far_end);
        if (i < COLOURS.size()) {
            blocks << "$near" << i << " << EOD\n" << near_rows << "EOD\n";
            blocks << "$far" << i << " << EOD\n" << far_rows << "EOD\n";
        } else {
            grey << near_rows << "\n" << far_rows << "\n";
        }
    }
    blocks << "$grey << EOD\n" << grey.str() << "EOD\n";
    return blocks.str();
}

std::string SessionPlot::titles(const std::string& title) const
{
    const Call& worst = _calls.front();
    const StatisticsLine& line = any_line(worst);
    std::ostringstream text;
    text << std::fixed << std::setprecision(1) << "worst call: " << line.gcid << "  " << line.tid
         << "  to " << line.far_end << ", loss up to " << worst.peaks.loss_percent
         << " %, jitter up to " << std::setprecision(0) << worst.peaks.jitter
         << ", round trip up to " << worst.peaks.round_trip;
    std::ostringstream script;
    script << "set label 1 " << gnuplot_string(title + "   " + _axis.span_text()) << " at screen "
           << LEFT << ",0.965 font ',14'\n"
           << "set label 2 " << gnuplot_string(text.str()) << " at screen " << LEFT
           << ",0.93 textcolor rgb '" << COLOURS[0] << "'\n";
    return script.str();
}

std::string SessionPlot::diagram(const Panel& panel) const
{
    std::ostringstream script;
    script << "set lmargin at screen " << LEFT << "\nset rmargin at screen " << RIGHT
           << "\nset tmargin at screen " << panel.top << "\nset bmargin at screen "
           << panel.top - PANEL_HEIGHT << "\nset grid\nset ylabel " << gnuplot_string(panel.title)
           << "\nset yrange [0:" << std::max(1.0, 1.25 * _highest.*panel.peak) << "]\n";
    if (panel.first)
        script << "set key at screen " << RIGHT + 0.015 << "," << panel.top
               << " left top reverse Left samplen 2 title 'worst calls first (GCID TID)' left\n";
    else
        script << "unset key\nunset label\n";
    script << (panel.last ? "set xlabel 'time of the report'\n" : "");
    return script.str() + peak_label(panel) + "plot " + key_entries() + curves(panel) + "\n";
}

// Marks the highest point of the worst call.
std::string SessionPlot::peak_label(const Panel& panel) const
{
    Samples samples = _calls.front().near_end;
    samples.insert(samples.end(), _calls.front().far_end.begin(), _calls.front().far_end.end());
    const StatisticsLine* const highest =
        *std::max_element(samples.begin(), samples.end(), [&panel](const auto* a, const auto* b) {
            return a->*panel.value < b->*panel.value;
        });
    const double place = _axis.place_of(highest->time_s);
    std::ostringstream text;
    text << std::fixed << std::setprecision(panel.first ? 1 : 0) << highest->*panel.value
         << panel.unit << " at " << _axis.clock_text(highest->time_s) << ", " << highest->gcid
         << " " << highest->type;
    std::ostringstream script;
    script << std::fixed << std::setprecision(3) << "set label 4 " << gnuplot_string(text.str())
           << " at first " << place << "," << highest->*panel.value
           << (place < _axis.middle() ? " left offset 0.8,0.6" : " right offset -0.8,0.6")
           << " textcolor rgb '" << COLOURS[0] << "' point pt 7 lc rgb '" << COLOURS[0]
           << "' front\n";
    return script.str();
}

const StatisticsLine& SessionPlot::any_line(const Call& call)
{
    return call.near_end.empty() ? *call.far_end.front() : *call.near_end.front();
}

// Curves without points, so that the key has its own order: the worst call, which is drawn last,
// comes first.
std::string SessionPlot::key_entries() const
{
    std::string entries;
    const std::size_t coloured = std::min(_calls.size(), COLOURS.size());
    for (std::size_t rank = 0; rank < coloured; rank++) {
        const StatisticsLine& line = any_line(_calls[rank]);
        entries += "NaN with lines" + style_of(rank) + " title " +
                   gnuplot_string(line.gcid + "  " + line.tid) + ", ";
    }
    if (_calls.size() > coloured)
        entries += std::string("NaN with lines lc rgb '") + GREY + "' title '" +
                   std::to_string(_calls.size() - coloured) + " more calls', ";
    return entries + "NaN with lines lc 'black' title 'near end', "
                     "NaN with lines lc 'black' dt (12,6) title 'far end'";
}

// The worst call comes last, over the others.
std::string SessionPlot::curves(const Panel& panel) const
{
    const std::string columns = " using 1:" + std::to_string(panel.column);
    std::string curves;
    if (_calls.size() > COLOURS.size())
        curves += ", $grey" + columns + " with lines notitle lc rgb '" + GREY + "'";
    for (std::size_t rank = std::min(_calls.size(), COLOURS.size()); rank-- > 0;) {
        const std::string look =
            columns + " with linespoints notitle pt 7 ps 0.35" + style_of(rank);
        if (!_calls[rank].far_end.empty())
            curves += ", $far" + std::to_string(rank) + look + " dt (12,6)";
        if (!_calls[rank].near_end.empty())
            curves += ", $near" + std::to_string(rank) + look;
    }
    return curves;
}
