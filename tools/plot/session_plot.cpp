#include "tools/plot/session_plot.h"

#include <algorithm>
#include <array>
#include <iomanip>
#include <sstream>

#include "tools/plot/gnuplot.h"

// One of the diagrams, which are drawn below each other.
struct SessionPlot::Panel {
    std::string title, unit;
    int decimals;
    double (*value)(const Sample&);
    int column;  // of the data blocks
    std::string range;
    double threshold;  // 0 if there is none
    bool lowest_is_worst;
};

namespace {

constexpr int TOP_PIXELS = 105, PANEL_PIXELS = 215, GAP_PIXELS = 16, BOTTOM_PIXELS = 90;
constexpr int MOST_TICS = 7;
constexpr double LEFT = 0.075, RIGHT = 0.785;  // parts of the width

// For the worst call, unless it is bad, and the following ones; all others are grey.
constexpr std::array<const char*, 6> COLOURS = {PLAIN_COLOUR, "#0072b2", "#009e73",
                                                "#cc79a7",    "#56b4e9", "#e69f00"};
constexpr const char* GREY = "#b8b8b8";
constexpr const char* THRESHOLD_STYLE = " with lines lw 1 dt (3,5) lc rgb '#555555'";

double loss_of(const Sample& report)
{
    return report.loss_percent;
}

double jitter_of(const Sample& report)
{
    return report.jitter;
}

double round_trip_of(const Sample& report)
{
    return report.round_trip;
}

double score_of(const Sample& report)
{
    return opinion_score(report.rating);
}

// The visible part of the reports in one column of pixels.
class Range {
public:
    void take(double place, const Sample& report)
    {
        constexpr double (*VALUES[])(const Sample&) = {loss_of, jitter_of, round_trip_of, score_of};
        if (_reports++ == 0)
            _first = place;
        _last = place;
        for (std::size_t i = 0; i < std::size(VALUES); i++) {
            const double value = VALUES[i](report);
            _lowest[i] = _reports == 1 ? value : std::min(_lowest[i], value);
            _highest[i] = _reports == 1 ? value : std::max(_highest[i], value);
        }
    }

    bool is_empty() const { return _reports == 0; }

    // Lines of time, loss, jitter, round-trip time and score.
    void write_to(std::ostream& rows) const
    {
        write_row(rows, _first, _lowest);
        if (_reports > 1)
            write_row(rows, _last, _highest);
    }

private:
    using Values = std::array<double, 4>;

    static void write_row(std::ostream& rows, double place, const Values& values)
    {
        rows << place;
        for (const double value : values)
            rows << " " << value;
        rows << "\n";
    }

    std::size_t _reports = 0;
    double _first = 0, _last = 0;
    Values _lowest{}, _highest{};
};

// From 0, with space for a text above the highest value and the threshold.
std::string range_for(double highest, double threshold)
{
    constexpr double LONG_NUMBER = 100000;  // from here on, tics need a suffix such as "M"
    std::ostringstream range;
    range << "[0:" << std::max(1.25 * highest, 1.1 * threshold) << "]\nset ytics autofreq format '"
          << (highest < LONG_NUMBER ? "%h" : "%.1s%c") << "'";
    return range.str();
}

constexpr std::size_t COLUMNS = static_cast<std::size_t>((RIGHT - LEFT) * SessionPlot::WIDTH);

std::size_t column_of(const TimeAxis& axis, const Sample& sample)
{
    const double part = (axis.place_of(sample.time_s) - axis.first_place()) /
                        std::max(axis.last_place() - axis.first_place(), 0.001);
    return std::min(static_cast<std::size_t>(part * COLUMNS), COLUMNS - 1);
}

double middle_of(const TimeAxis& axis, std::size_t column)
{
    return axis.first_place() +
           (static_cast<double>(column) + 0.5) / COLUMNS * (axis.last_place() - axis.first_place());
}

}  // namespace

SessionPlot::SessionPlot(const std::vector<Call>& calls, const Caption& caption)
    : _calls(calls), _caption(caption), _axis(calls, caption)
{
    constexpr std::size_t MANY = 50000;
    std::size_t grey = 0;
    for (std::size_t i = COLOURS.size(); i < calls.size(); i++)
        grey += calls[i].near_samples.size() + calls[i].far_samples.size();
    _many_grey = grey > MANY;
    find_longest_gap();
}

// Three times the usual interval between reports.
void SessionPlot::find_longest_gap()
{
    std::vector<double> gaps;
    for (const Call& call : _calls)
        for (const auto* samples : {&call.near_samples, &call.far_samples})
            for (std::size_t i = 1; i < samples->size(); i++)
                gaps.push_back((*samples)[i].time_s - (*samples)[i - 1].time_s);
    if (gaps.empty())
        return;
    const auto middle = gaps.begin() + static_cast<std::ptrdiff_t>(gaps.size() / 2);
    std::nth_element(gaps.begin(), middle, gaps.end());
    _longest_gap_s = 3 * *middle;
}

std::vector<SessionPlot::Panel> SessionPlot::panels() const
{
    Quality worst;
    for (const Call& call : _calls)
        worst.take({call.quality.loss_percent, call.quality.jitter, call.quality.round_trip, 0, 0},
                   call.quality.rating);
    const Thresholds& limits = _caption.thresholds;
    const std::string unit = _caption.unit(), axis_unit = _caption.axis_unit();
    std::vector<Panel> panels = {
        {"Loss, %", " %", 1, loss_of, 2, range_for(worst.loss_percent, limits.loss_percent),
         limits.loss_percent, false},
        {"Jitter" + axis_unit, unit, 0, jitter_of, 3, range_for(worst.jitter, limits.jitter),
         limits.jitter, false},
        {"Round trip" + axis_unit, unit, 0, round_trip_of, 4,
         range_for(worst.round_trip, limits.round_trip), limits.round_trip, false}};
    if (_caption.in_ms)  // the space below 1, the lowest score, is for a text
        panels.push_back({"MOS, estimated", "", 1, score_of, 5,
                          "[0.4:4.7]\nset ytics 1,1,4 format '%h'", 0, true});
    return panels;
}

int SessionPlot::height() const
{
    const int count = static_cast<int>(panels().size());
    return TOP_PIXELS + count * PANEL_PIXELS + (count - 1) * GAP_PIXELS + BOTTOM_PIXELS;
}

std::string SessionPlot::gnuplot_script() const
{
    const std::vector<Panel> all = panels();
    std::string script = data_blocks() + "set multiplot\n" + titles();
    int top = TOP_PIXELS;
    for (const Panel& each : all) {
        script += diagram(each, top, &each == &all.back());
        top += PANEL_PIXELS + GAP_PIXELS;
    }
    return script + "unset multiplot\n";
}

// An empty line breaks the curve.
std::string SessionPlot::rows(const std::vector<Sample>& samples) const
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(3);
    Range range;
    std::size_t column = 0;
    double previous_s = 0;
    for (const Sample& sample : samples) {
        if (!_axis.shows(sample.time_s))
            continue;
        const bool breaks = sample.time_s - previous_s > _longest_gap_s;
        if (!range.is_empty() && (breaks || column_of(_axis, sample) != column)) {
            range.write_to(text);
            range = Range();
            text << (breaks ? "\n" : "");
        }
        column = column_of(_axis, sample);
        previous_s = sample.time_s;
        range.take(_axis.place_of(sample.time_s), sample);
    }
    if (!range.is_empty())
        range.write_to(text);
    return text.str();
}

// One curve per stream.
std::string SessionPlot::grey_rows() const
{
    std::string text;
    for (std::size_t i = COLOURS.size(); i < _calls.size(); i++)
        text += rows(_calls[i].near_samples) + "\n" + rows(_calls[i].far_samples) + "\n";
    return text;
}

// For each column of pixels, a line from the lowest to the highest value of all calls.
std::string SessionPlot::grey_ranges() const
{
    std::vector<Range> ranges(COLUMNS);
    for (std::size_t i = COLOURS.size(); i < _calls.size(); i++)
        for (const auto* samples : {&_calls[i].near_samples, &_calls[i].far_samples})
            for (const Sample& sample : *samples)
                if (_axis.shows(sample.time_s)) {
                    const std::size_t column = column_of(_axis, sample);
                    ranges[column].take(middle_of(_axis, column), sample);
                }
    std::ostringstream text;
    text << std::fixed << std::setprecision(3);
    for (const Range& range : ranges)
        if (!range.is_empty()) {
            range.write_to(text);
            text << "\n";
        }
    return text.str();
}

// $near0, $far0, $near1 ... of the coloured calls, $grey of all others.
std::string SessionPlot::data_blocks() const
{
    std::string blocks;
    for (std::size_t i = 0; i < std::min(_calls.size(), COLOURS.size()); i++) {
        const std::string number = std::to_string(i);
        blocks += "$near" + number + " << EOD\n" + rows(_calls[i].near_samples) + "EOD\n";
        blocks += "$far" + number + " << EOD\n" + rows(_calls[i].far_samples) + "EOD\n";
    }
    return blocks + "$grey << EOD\n" + (_many_grey ? grey_ranges() : grey_rows()) + "EOD\n";
}

std::string SessionPlot::titles() const
{
    const Call& worst = _calls.front();
    const Quality& quality = worst.quality;
    std::string text = "worst call: " + worst.gcid + "  " + worst.tid + "  to " + worst.far_end +
                       ", loss up to " + figure(quality.loss_percent, 1) + " %, jitter up to " +
                       figure(quality.jitter) + _caption.unit() + ", round trip up to " +
                       figure(quality.round_trip) + _caption.unit();
    if (_caption.in_ms)
        text += ", R down to " + figure(quality.rating, 1);
    const auto line = [this](const std::string& words, int pixels, const std::string& look) {
        return "set label " + gnuplot_string(words) + " at screen " + std::to_string(LEFT) + "," +
               std::to_string(1 - static_cast<double>(pixels) / height()) + look + "\n";
    };
    return line(_caption.title + "   " + _axis.span_text(), 30, " font ',14'") +
           line(text, 60,
                " textcolor rgb '" + std::string(worst.is_bad() ? BAD_COLOUR : PLAIN_COLOUR) +
                    "'") +
           line(bad_calls_text(_calls, _caption.thresholds, _caption.unit()), 84, "") +
           line(_axis.with_outside_text(_caption.left_out), height() - 14, "");
}

std::string SessionPlot::diagram(const Panel& panel, int top, bool last) const
{
    const double pixels = height();
    const bool first = top == TOP_PIXELS;
    std::ostringstream script;
    script << "set lmargin at screen " << LEFT << "\nset rmargin at screen " << RIGHT
           << "\nset tmargin at screen " << 1 - top / pixels << "\nset bmargin at screen "
           << 1 - (top + PANEL_PIXELS) / pixels << "\nset grid\nset ylabel "
           << gnuplot_string(panel.title) << "\nset yrange " << panel.range << "\n"
           << _axis.gnuplot_script(MOST_TICS, last);
    if (first)
        script << "set key at screen " << RIGHT + 0.015 << "," << 1 - top / pixels
               << " left top reverse Left samplen 2 title 'worst calls first (GCID TID)' left\n";
    else
        script << "unset key\nunset label\n";
    if (last)
        script << "set xlabel 'time of the report, " << _axis.zone_text() << "'\n";
    return script.str() + worst_label(panel) + "plot " + key_entries(panel) + curves(panel) + "\n";
}

// Marks the worst point of the worst call, if it is visible.
std::string SessionPlot::worst_label(const Panel& panel) const
{
    const Call& call = _calls.front();
    const Sample* worst = nullptr;
    bool near_end = false;
    for (const auto* samples : {&call.near_samples, &call.far_samples})
        for (const Sample& sample : *samples) {
            const double more = worst == nullptr ? 1 : panel.value(sample) - panel.value(*worst);
            if (!_axis.shows(sample.time_s) ||
                (panel.lowest_is_worst && worst != nullptr ? more >= 0 : more <= 0))
                continue;
            worst = &sample;
            near_end = samples == &call.near_samples;
        }
    if (worst == nullptr)
        return "unset label 9\n";
    const double place = _axis.place_of(worst->time_s);
    const std::string text = figure(panel.value(*worst), panel.decimals) + panel.unit + " at " +
                             _axis.moment_text(worst->time_s) + ", " + call.gcid +
                             (near_end ? " near end" : " far end");
    const char* const colour = call.is_bad() ? BAD_COLOUR : PLAIN_COLOUR;
    std::ostringstream script;
    script << std::fixed << std::setprecision(3) << "set label 9 " << gnuplot_string(text)
           << " at first " << place << "," << panel.value(*worst)
           << (place < _axis.middle() ? " left offset 0.8," : " right offset -0.8,")
           << (panel.lowest_is_worst ? -0.7 : 0.6) << " textcolor rgb '" << colour
           << "' point pt 7 lc rgb '" << colour << "' front\n";
    return script.str();
}

// The style of the call with this rank; 0 is the worst.
std::string SessionPlot::style_of(std::size_t rank) const
{
    const bool stands_out = rank == 0 && _calls.front().is_bad();
    return std::string(stands_out ? " lw 2.5" : " lw 1.2") + " lc rgb '" +
           (stands_out ? BAD_COLOUR : COLOURS[rank]) + "'";
}

// Curves without points give the key its own order: the worst call is first, although it is drawn
// last.
std::string SessionPlot::key_entries(const Panel& panel) const
{
    std::string entries;
    const std::size_t coloured = std::min(_calls.size(), COLOURS.size());
    for (std::size_t rank = 0; rank < coloured; rank++) {
        entries += "NaN with lines" + style_of(rank) + " title " +
                   gnuplot_string(_calls[rank].gcid + "  " + _calls[rank].tid) + ", ";
    }
    if (_calls.size() > coloured)
        entries += std::string("NaN with lines lc rgb '") + GREY + "' title '" +
                   std::to_string(_calls.size() - coloured) + " more calls" +
                   (_many_grey ? ", as a range', " : "', ");
    entries += "NaN with lines lc 'black' title 'near end', "
               "NaN with lines lc 'black' dt (12,6) title 'far end'";
    if (panel.threshold > 0)
        entries += ", " + std::to_string(panel.threshold) + THRESHOLD_STYLE +
                   " title 'threshold of bad calls'";
    return entries;
}

// The worst call is drawn last, on top of the others.
std::string SessionPlot::curves(const Panel& panel) const
{
    const std::string columns = " using 1:" + std::to_string(panel.column);
    std::string curves;
    if (_calls.size() > COLOURS.size())
        curves += ", $grey" + columns + " with lines notitle lc rgb '" + GREY + "'";
    for (std::size_t rank = std::min(_calls.size(), COLOURS.size()); rank-- > 0;) {
        const std::string look =
            columns + " with linespoints notitle pt 7 ps 0.35" + style_of(rank);
        if (!_calls[rank].far_samples.empty())
            curves += ", $far" + std::to_string(rank) + look + " dt (12,6)";
        if (!_calls[rank].near_samples.empty())
            curves += ", $near" + std::to_string(rank) + look;
    }
    return curves;
}
