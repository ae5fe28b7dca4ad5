// voxstat-plot: draws or lists the calls in statistics and session-summary files.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/common/progress.h"
#include "tools/plot/call_table.h"
#include "tools/plot/calls.h"
#include "tools/plot/caption.h"
#include "tools/plot/gnuplot.h"
#include "tools/plot/input_file.h"
#include "tools/plot/plot_options.h"
#include "tools/plot/session_plot.h"
#include "tools/plot/statistics_file.h"
#include "tools/plot/summary_plot.h"

namespace {

// The reports of all files.
struct Reports {
    std::optional<StatisticsKind> kind;
    CallBook calls;
    std::size_t undated = 0;  // left out
};

const char* name_of(StatisticsKind kind)
{
    return kind == StatisticsKind::SESSION ? "session reports" : "session summaries";
}

void tell_unread(const std::string& file_name, const UnreadLines& lines)
{
    std::string where = file_name + ":" + std::to_string(lines.first);
    if (lines.last != lines.first)
        where += "-" + std::to_string(lines.last);
    (void)std::fprintf(stderr, "%s: cannot be read: %s\n", where.c_str(), lines.reason);
}

void check_kind(const InputFile& input, StatisticsKind kind, Reports& reports)
{
    if (reports.kind && *reports.kind != kind)
        throw std::runtime_error(input.name() + " contains " + name_of(kind) +
                                 ", but the previous files contain " + name_of(*reports.kind) +
                                 "; run voxstat-plot once for each kind");
    reports.kind = kind;
}

void show_progress(const InputFile& input, Progress& progress)
{
    constexpr std::uint64_t MEGABYTE = 1000000;
    std::string text = input.name() + ": " + std::to_string(input.bytes_read() / MEGABYTE) + " MB";
    if (input.size() > 0)
        text += " of " + std::to_string(input.size() / MEGABYTE) + " MB";
    progress.show(text);
}

void take_file(InputFile& input, const PlotOptions& options, Reports& reports, Progress& progress)
{
    constexpr unsigned FEW = 4096;  // lines between two looks at the clock
    StatisticsFile file(input, [&](const UnreadLines& lines) {
        progress.erase();
        tell_unread(input.name(), lines);
    });
    StatisticsLine line;
    for (unsigned count = 1; file.next(line); count++) {
        if (count == 1)
            check_kind(input, line.kind, reports);
        if (!line.is_dated())
            reports.undated++;
        else if (options.chooses(line))
            reports.calls.take(line, !options.in_ms
                                         ? BEST_RATING
                                         : rating(line.figures.loss_percent, line.figures.jitter,
                                                  line.figures.round_trip, options.concealment));
        if (count % FEW == 0 && progress.is_due())
            show_progress(input, progress);
    }
    if (file.kind())  // known from a header, even without lines
        check_kind(input, *file.kind(), reports);
}

// The local time of the last report at the end of the file. Reports from a clock that is ahead do
// not count.
std::optional<double> last_report_s(InputFile& input)
{
    constexpr double DAY_S = 86400;
    const std::string tail = input.tail();
    std::optional<double> last;
    std::size_t end = tail.size();
    while (!last && end > 0) {
        const std::size_t begin = tail.rfind('\n', end - 1) + 1;
        const char* reason = nullptr;
        const auto line =
            StatisticsLine::parse(std::string_view(tail).substr(begin, end - begin), reason);
        if (line && line->is_dated() &&
            line->time_s < static_cast<double>(std::time(nullptr)) + DAY_S)
            last = line->time_s + static_cast<double>(line->zone_offset_s);
        end = begin == 0 ? 0 : begin - 1;
    }
    return last;
}

void set_last(std::vector<InputFile>& inputs, PlotOptions& options)
{
    std::optional<double> last;
    for (InputFile& input : inputs)
        last = std::max(last, last_report_s(input));
    options.set_last(last.value_or(static_cast<double>(std::time(nullptr))));
}

Reports read_reports(PlotOptions& options, Progress& progress)
{
    std::vector<InputFile> inputs;
    for (const std::string& name : options.files)
        inputs.emplace_back(name);
    if (options.needs_last())
        set_last(inputs, options);
    Reports reports = {.kind = {}, .calls = CallBook(!options.list)};
    for (InputFile& input : inputs)
        take_file(input, options, reports, progress);
    return reports;
}

Caption caption_for(const PlotOptions& options, const Reports& reports)
{
    constexpr std::size_t MOST_CHARACTERS = 50;
    const std::string& path = options.files.front();
    std::string title = path == "-" ? "standard input" : path.substr(path.rfind('/') + 1);
    if (title.size() > MOST_CHARACTERS) {
        title.erase(MOST_CHARACTERS);
        title += "...";
    }
    if (options.files.size() > 1)
        title += " + " + std::to_string(options.files.size() - 1);
    Caption caption = {.title = title,
                       .left_out = {},
                       .begin_chosen = options.from.has_value(),
                       .end_chosen = options.to.has_value(),
                       .thresholds = options.thresholds,
                       .in_ms = options.in_ms};
    if (reports.undated > 0)
        caption.left_out =
            "reports left out for lack of a time stamp: " + std::to_string(reports.undated);
    return caption;
}

// The gnuplot commands of the picture.
template <typename Plot>
std::string script_of(const Plot& plot, const std::string& picture)
{
    return gnuplot_terminal(picture, Plot::WIDTH, plot.height()) + plot.gnuplot_script();
}

bool draw(const PlotOptions& options, StatisticsKind kind, const std::vector<Call>& calls,
          const Caption& caption)
{
    create_file(options.picture);
    if (run_gnuplot(kind == StatisticsKind::SESSION
                        ? script_of(SessionPlot(calls, caption), options.picture)
                        : script_of(SummaryPlot(calls, caption), options.picture)))
        return true;
    (void)std::remove(options.picture.c_str());  // it is empty or incomplete
    return false;
}

bool print(const std::string& text)
{
    if (std::fputs(text.c_str(), stdout) != EOF && std::fflush(stdout) == 0)
        return true;
    throw std::runtime_error(std::string("standard output: ") + std::strerror(errno));
}

bool run(PlotOptions options)
{
    Progress progress;
    Reports reports = read_reports(options, progress);
    const Caption caption = caption_for(options, reports);
    const std::size_t count = reports.calls.reports();
    const std::vector<Call> calls = reports.calls.worst_first(options.thresholds);
    if (!options.list && !calls.empty() && progress.is_due())
        progress.show("drawing");
    const bool drawn =
        !options.list && !calls.empty() && draw(options, *reports.kind, calls, caption);
    progress.erase();
    if (!caption.left_out.empty())
        (void)std::fprintf(stderr, "voxstat-plot: %s\n", caption.left_out.c_str());
    if (calls.empty()) {
        (void)std::fputs("voxstat-plot: the files contain no matching reports\n", stderr);
        return false;
    }
    if (options.list)
        return print(call_table(calls, caption));
    return drawn &&
           print(options.picture + ": " + name_of(*reports.kind) + ": " + std::to_string(count) +
                 ", calls: " + std::to_string(calls.size()) + "\n");
}

}  // namespace

int main(int argc, char** argv)
{
    const std::optional<PlotOptions> options = PlotOptions::parse(argc, argv);
    if (!options)
        return 2;
    try {
        return run(*options) ? 0 : 1;
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "voxstat-plot: %s\n", error.what());
        return 1;
    }
}
