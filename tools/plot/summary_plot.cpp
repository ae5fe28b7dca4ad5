#include "tools/plot/summary_plot.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

#include "tools/plot/gnuplot.h"
#include "tools/plot/printable.h"

namespace {

constexpr int TOP_PIXELS = 105, BOTTOM_PIXELS = 120;
constexpr int ROW_PIXELS = 22, LEAST_ROW_PIXELS = 17;
constexpr int MOST_PIXELS = 1600;
constexpr std::size_t MOST_CALLS = 40;
constexpr std::size_t MOST_BARS = (MOST_PIXELS - TOP_PIXELS - BOTTOM_PIXELS) / LEAST_ROW_PIXELS;
static_assert(MOST_BARS >= 2 * MOST_CALLS);

constexpr int MOST_TICS = 4;
constexpr double LEFT = 0.295;  // part of the width
constexpr double CHARACTER_PIXELS = 7.3;
constexpr int FIGURES = 32, FIGURES_WITH_SCORE = 45;  // characters

// All three align their columns, in a font of fixed width.
std::string call_columns(const std::string& gcid, const std::string& tid,
                         const std::string& direction, const std::string& far_end)
{
    return right_aligned(gcid, 9) + right_aligned(tid, 12) + right_aligned(direction, 10) +
           right_aligned(far_end, 16);
}

std::string figure_columns(const std::string& loss, const std::string& jitter,
                           const std::string& round_trip)
{
    return right_aligned(loss, 8) + right_aligned(jitter, 12) + right_aligned(round_trip, 12);
}

std::string score_columns(const std::string& rating, const std::string& score)
{
    return right_aligned(rating, 8) + right_aligned(score, 5);
}

// The texts to the left and to the right of the bars, at a position in gnuplot's syntax.
std::string side_labels(const std::string& call, const std::string& figures,
                        const std::string& height, const std::string& colour)
{
    const std::string common =
        ", " + height + " font 'monospace,9' textcolor rgb '" + colour + "'\n";
    return "set label " + gnuplot_string(call) + " right at graph -0.005" + common + "set label " +
           gnuplot_string(figures) + " at graph 1.005" + common;
}

}  // namespace

SummaryPlot::SummaryPlot(const std::vector<Call>& calls, const Caption& caption)
    : _calls(calls), _caption(caption), _axis(calls, caption)
{
    choose_bars();
}

// Whole calls, except for a single one that does not fit.
void SummaryPlot::choose_bars()
{
    for (const Call& call : _calls) {
        if (_shown == MOST_CALLS || (_shown > 0 && _bars.size() + call.streams.size() > MOST_BARS))
            break;
        for (const Stream& stream : call.streams)
            _bars.push_back({&call, &stream});
        _shown++;
    }
    _bars.resize(std::min(_bars.size(), MOST_BARS));
}

int SummaryPlot::height() const
{
    const int room = MOST_PIXELS - TOP_PIXELS - BOTTOM_PIXELS;
    const int rows = std::max(static_cast<int>(_bars.size()), 4);
    return TOP_PIXELS + BOTTOM_PIXELS + std::min(ROW_PIXELS, room / rows) * rows;
}

// The right edge of the bars, as a part of the width.
double SummaryPlot::right() const
{
    return 0.985 - (_caption.in_ms ? FIGURES_WITH_SCORE : FIGURES) * CHARACTER_PIXELS / WIDTH;
}

std::string SummaryPlot::gnuplot_script() const
{
    const double pixels = height();
    std::ostringstream script;
    script << "$bars << EOD\n"
           << bar_rows() << "EOD\n"
           << labels() << _axis.gnuplot_script(MOST_TICS, true) << "set lmargin at screen " << LEFT
           << "\nset rmargin at screen " << right() << "\nset tmargin at screen "
           << 1 - TOP_PIXELS / pixels << "\nset bmargin at screen " << BOTTOM_PIXELS / pixels
           << "\nset yrange [" << _bars.size()
           << ".5:0.5]\nunset ytics\nunset key\nset grid xtics\n"
           << "set xlabel 'time from the first to the last packet, " << _axis.zone_text()
           << "'\nset style fill solid 0.9 border rgb '#555555'\n"
           // Few listeners notice a loss below 1 %; more than 5 % annoys all.
           // From light to dark, because not everybody can distinguish red from green.
           << "set palette defined (0 '#ffffe5', 1 '#fee391', 2.5 '#fe9929', 5 '#8c2d04')\n"
           << "set cbrange [0:5]\nset cblabel 'loss in %, darkest: 5 or more'\n"
           << "set colorbox horizontal user origin screen " << right() + 0.02 << ","
           << 0.5 * BOTTOM_PIXELS / pixels << " size screen " << 0.95 - right() << ","
           << 14 / pixels << "\nplot $bars using 1:2:3:4:5:6:7 with boxxyerror fc palette\n";
    return script.str();
}

// Middle, row, left, right, lower and upper edge, loss.
std::string SummaryPlot::bar_rows() const
{
    std::ostringstream rows;
    rows << std::fixed << std::setprecision(3);
    for (std::size_t i = 0; i < _bars.size(); i++) {
        const double begin = _axis.place_of(_bars[i].stream->begin_s);
        const double end = _axis.place_of(_bars[i].stream->end_s);
        const auto row = static_cast<double>(i + 1);
        rows << (begin + end) / 2 << " " << row << " " << begin << " " << end << " " << row - 0.38
             << " " << row + 0.38 << " " << _bars[i].stream->figures.loss_percent << "\n";
    }
    return rows.str();
}

std::string SummaryPlot::labels() const
{
    const double pixels = height();
    std::string counts = bad_calls_text(_calls, _caption.thresholds, _caption.unit());
    if (_shown < _calls.size())
        counts += "; shown: the worst " + std::to_string(_shown) +
                  ", not shown: " + std::to_string(_calls.size() - _shown);
    const auto line = [pixels](const std::string& words, int top, const char* look) {
        return "set label " + gnuplot_string(words) + " at screen 0.02, screen " +
               std::to_string(1 - top / pixels) + look + "\n";
    };
    const std::string headings = figure_columns("loss", "jitter", "round trip") +
                                 (_caption.in_ms ? score_columns("R", "MOS") : "");
    std::string script = line(_caption.title + "   " + _axis.span_text(), 26, " font ',14'") +
                         line(counts, 54, "") +
                         line("jitter and round trip" + _caption.axis_unit() + ": average/maximum",
                              height() - 40, "") +
                         line(_axis.with_outside_text(_caption.left_out), height() - 16, "") +
                         side_labels(call_columns("GCID", "TID", "stream", "far end"), headings,
                                     "screen " + std::to_string(1 - 90 / pixels), PLAIN_COLOUR);
    for (std::size_t i = 0; i < _bars.size(); i++) {
        const auto& [call, stream] = _bars[i];
        const bool is_bad = stream->quality.severity(_caption.thresholds) >= 1;
        script +=
            side_labels(call_columns(call->gcid, call->tid,
                                     stream->near_end ? "near end" : "far end", stream->far_end),
                        figures_of(*stream), "first " + std::to_string(i + 1),
                        is_bad ? BAD_COLOUR : PLAIN_COLOUR);
    }
    return script;
}

std::string SummaryPlot::figures_of(const Stream& stream) const
{
    const Figures& of = stream.figures;
    const auto pair = [](double average, double maximum) {
        return figure(average) + "/" + figure(maximum);
    };
    std::string text =
        figure_columns(figure(of.loss_percent, 1) + "%", pair(of.jitter, of.jitter_max),
                       pair(of.round_trip, of.round_trip_max));
    if (!_caption.in_ms)
        return text;
    return text + score_columns(figure(stream.quality.rating, 1),
                                figure(opinion_score(stream.quality.rating), 1));
}
