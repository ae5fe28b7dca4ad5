#include "tools/plot/summary_plot.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <sstream>
#include <tuple>

#include "tools/plot/gnuplot.h"

namespace {

constexpr int TOP_PIXELS = 80, BOTTOM_PIXELS = 120;
constexpr int ROW_PIXELS = 22, LEAST_ROW_PIXELS = 3;
constexpr int MOST_PIXELS = 3000;
constexpr std::size_t MOST_LABELLED = 120;  // when all bars have their labels
constexpr std::size_t WORST_LABELLED = 25;  // when not
constexpr double LEFT = 0.295, RIGHT = 0.775;
constexpr const char* WORST_COLOUR = "#d62728";
constexpr const char* COLOUR = "black";

double begin_of(const StatisticsLine& line)
{
    return line.time_s - line.span_s;
}

TimeAxis axis_of(const std::vector<StatisticsLine>& lines)
{
    double begin = begin_of(lines.front());
    double end = lines.front().time_s;
    for (const StatisticsLine& line : lines) {
        begin = std::min(begin, begin_of(line));
        end = std::max(end, line.time_s);
    }
    return {lines.front(), begin, end};
}

// Both keep their columns below each other in a font of one width.
std::string call_columns(const std::string& gcid, const std::string& tid,
                         const std::string& direction, const std::string& far_end)
{
    std::ostringstream text;
    text << std::setw(9) << gcid << std::setw(12) << tid << std::setw(10) << direction
         << std::setw(16) << far_end;
    return text.str();
}

std::string figure_columns(const std::string& loss, const std::string& jitter,
                           const std::string& round_trip)
{
    std::ostringstream text;
    text << std::setw(7) << loss << std::setw(10) << jitter << std::setw(12) << round_trip;
    return text.str();
}

std::string figure_columns(const StatisticsLine& line)
{
    std::ostringstream loss;
    loss << std::fixed << std::setprecision(1) << line.loss_percent << "%";
    const auto pair = [](double average, double maximum) {
        return std::to_string(std::lround(average)) + "/" + std::to_string(std::lround(maximum));
    };
    return figure_columns(loss.str(), pair(line.jitter, line.jitter_max),
                          pair(line.round_trip, line.round_trip_max));
}

// A pair of texts to the left and to the right of the bars, at a height in gnuplot's words.
std::string side_labels(const std::string& call, const std::string& figures,
                        const std::string& height, const std::string& colour)
{
    const std::string common =
        ", " + height + " font 'monospace,9' textcolor rgb '" + colour + "'\n";
    return "set label " + gnuplot_string(call) + " right at graph -0.005" + common + "set label " +
           gnuplot_string(figures) + " at graph 1.005" + common;
}

}  // namespace

SummaryPlot::SummaryPlot(const std::vector<StatisticsLine>& lines) : _axis(axis_of(lines))
{
    QualityPeaks highest;
    for (const StatisticsLine& line : lines)
        highest.take(line);
    for (const StatisticsLine& line : lines) {
        QualityPeaks peaks;
        peaks.take(line);
        _bars.push_back({&line, peaks.severity(highest), false, false});
    }
    std::stable_sort(_bars.begin(), _bars.end(), [](const Bar& a, const Bar& b) {
        return std::tuple(begin_of(*a.line), a.line->gcid, a.line->tid) <
               std::tuple(begin_of(*b.line), b.line->gcid, b.line->tid);
    });
    choose_labelled();
}

// All bars, if there is room, else the worst ones.
void SummaryPlot::choose_labelled()
{
    std::vector<Bar*> order(_bars.size());
    std::transform(_bars.begin(), _bars.end(), order.begin(), [](Bar& bar) { return &bar; });
    std::stable_sort(order.begin(), order.end(),
                     [](const Bar* a, const Bar* b) { return a->severity > b->severity; });
    order.front()->worst = true;
    if (order.size() > MOST_LABELLED)
        order.resize(WORST_LABELLED);
    for (Bar* bar : order)
        bar->labelled = true;
}

int SummaryPlot::height() const
{
    const int room = MOST_PIXELS - TOP_PIXELS - BOTTOM_PIXELS;
    const int bars = static_cast<int>(std::min<std::size_t>(_bars.size(), 100000));
    const int row = std::clamp(room / bars, LEAST_ROW_PIXELS, ROW_PIXELS);
    return TOP_PIXELS + BOTTOM_PIXELS + std::min(room, row * std::max(bars, 4));
}

std::string SummaryPlot::gnuplot_script(const std::string& title) const
{
    const double pixels = height();
    std::ostringstream script;
    script << "$bars << EOD\n"
           << bar_rows() << "EOD\n"
           << labels(title) << _axis.gnuplot_script() << "set lmargin at screen " << LEFT
           << "\nset rmargin at screen " << RIGHT << "\nset tmargin at screen "
           << 1 - TOP_PIXELS / pixels << "\nset bmargin at screen " << BOTTOM_PIXELS / pixels
           << "\nset yrange [" << _bars.size()
           << ".5:0.5]\nunset ytics\nunset key\nset grid xtics\n"
           << "set xlabel 'time'\nset style fill solid 0.9 border rgb '#555555'\n"
           // Few listeners hear a loss below one per cent, all are annoyed by more than five.
           << "set palette defined (0 '#4daf4a', 1 '#d9ef8b', 2.5 '#fdae61', 5 '#d62728')\n"
           << "set cbrange [0:5]\nset cblabel 'loss in per cent, 5 and more in red'\n"
           << "set colorbox horizontal user origin screen " << RIGHT + 0.01 << ","
           << 0.5 * BOTTOM_PIXELS / pixels << " size screen " << 0.97 - RIGHT << "," << 14 / pixels
           << "\nplot $bars using 1:2:3:4:5:6:7 with boxxyerror fc palette\n";
    return script.str();
}

// Middle, row, left, right, lower and upper edge, loss.
std::string SummaryPlot::bar_rows() const
{
    std::ostringstream rows;
    rows << std::fixed << std::setprecision(3);
    for (std::size_t i = 0; i < _bars.size(); i++) {
        const StatisticsLine& line = *_bars[i].line;
        const double begin = _axis.place_of(begin_of(line));
        const double end = _axis.place_of(line.time_s);
        const auto row = static_cast<double>(i + 1);
        rows << (begin + end) / 2 << " " << row << " " << begin << " " << end << " " << row - 0.38
             << " " << row + 0.38 << " " << line.loss_percent << "\n";
    }
    return rows.str();
}

std::string SummaryPlot::labels(const std::string& title) const
{
    const double pixels = height();
    std::ostringstream script;
    script << "set label " << gnuplot_string(title + "   " + _axis.span_text())
           << " at screen 0.02, screen " << 1 - 26 / pixels << " font ',14'\n"
           << side_labels(call_columns("GCID", "TID", "type", "far end"),
                          figure_columns("loss", "jitter", "round trip"),
                          "screen " + std::to_string(1 - 64 / pixels), COLOUR);
    script << "set label 'jitter and round trip: average/maximum' at screen 0.02, screen "
           << 0.35 * BOTTOM_PIXELS / pixels << "\n";
    for (std::size_t i = 0; i < _bars.size(); i++) {
        const StatisticsLine& line = *_bars[i].line;
        if (_bars[i].labelled)
            script << side_labels(call_columns(line.gcid, line.tid, line.type, line.far_end),
                                  figure_columns(line), "first " + std::to_string(i + 1),
                                  _bars[i].worst ? WORST_COLOUR : COLOUR);
    }
    return script.str();
}
