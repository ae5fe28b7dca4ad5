// voxstat-plot: draws statistics and session-summary files, so that a bad call is seen at a glance.
#include <cstdio>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/plot/call_table.h"
#include "tools/plot/calls.h"
#include "tools/plot/caption.h"
#include "tools/plot/file_bytes.h"
#include "tools/plot/gnuplot.h"
#include "tools/plot/plot_options.h"
#include "tools/plot/session_plot.h"
#include "tools/plot/statistics_file.h"
#include "tools/plot/summary_plot.h"

namespace {

// What is looked at of all files.
struct Reports {
    std::optional<StatisticsKind> kind;
    std::vector<StatisticsLine> lines;
    std::size_t undated = 0;  // left out
};

const char* name_of(StatisticsKind kind)
{
    return kind == StatisticsKind::SESSION ? "session reports" : "end-of-session reports";
}

void report_unread(const std::string& file_name, const StatisticsFile& file)
{
    for (const UnreadLines& lines : file.unread()) {
        std::string where = file_name + ":" + std::to_string(lines.first);
        if (lines.last != lines.first)
            where += "-" + std::to_string(lines.last);
        (void)std::fprintf(stderr, "%s: cannot be read: %s\n", where.c_str(), lines.reason.c_str());
    }
}

void take_file(const std::string& name, const PlotOptions& options, Reports& reports)
{
    const StatisticsFile file(read_file(name));
    report_unread(name, file);
    if (!file.kind())
        return;
    if (reports.kind && *reports.kind != *file.kind())
        throw std::runtime_error(name + " has " + name_of(*file.kind()) +
                                 ", the files before it have " + name_of(*reports.kind) +
                                 "; give each kind a run of its own");
    reports.kind = file.kind();
    for (const StatisticsLine& line : file.lines()) {
        if (!line.is_dated())
            reports.undated++;
        else if (options.chooses(line))
            reports.lines.push_back(line);
    }
}

Reports read_reports(const PlotOptions& options)
{
    Reports reports;
    for (const std::string& name : options.files)
        take_file(name, options, reports);
    if (options.in_ms)
        for (StatisticsLine& line : reports.lines)
            line.rating =
                rating(line.loss_percent, line.jitter, line.round_trip, options.concealment);
    return reports;
}

Caption caption_for(const PlotOptions& options, const Reports& reports)
{
    constexpr std::size_t MOST_CHARACTERS = 50;
    const std::string& path = options.files.front();
    std::string title = path.substr(path.rfind('/') + 1);
    if (title.size() > MOST_CHARACTERS) {
        title.erase(MOST_CHARACTERS);
        title += "...";
    }
    if (options.files.size() > 1)
        title += " + " + std::to_string(options.files.size() - 1);
    Caption caption = {
        .title = title, .left_out = {}, .thresholds = options.thresholds, .in_ms = options.in_ms};
    if (reports.undated > 0)
        caption.left_out =
            "reports without a time stamp, left out: " + std::to_string(reports.undated);
    return caption;
}

// The gnuplot commands of the picture.
template <typename Plot>
std::string script_of(const Plot& plot, const std::string& picture)
{
    return gnuplot_terminal(picture, Plot::WIDTH, plot.height()) + plot.gnuplot_script();
}

bool draw(const PlotOptions& options, const Reports& reports, const std::vector<Call>& calls,
          const Caption& caption)
{
    create_file(options.picture);
    const bool drawn = run_gnuplot(*reports.kind == StatisticsKind::SESSION
                                       ? script_of(SessionPlot(calls, caption), options.picture)
                                       : script_of(SummaryPlot(calls, caption), options.picture));
    if (!drawn) {
        (void)std::remove(options.picture.c_str());  // it is empty or not whole
        return false;
    }
    std::printf("%s: %s: %zu, calls: %zu\n", options.picture.c_str(), name_of(*reports.kind),
                reports.lines.size(), calls.size());
    return true;
}

bool run(const PlotOptions& options)
{
    const Reports reports = read_reports(options);
    const Caption caption = caption_for(options, reports);
    if (!caption.left_out.empty())
        (void)std::fprintf(stderr, "voxstat-plot: %s\n", caption.left_out.c_str());
    if (reports.lines.empty()) {
        (void)std::fputs("voxstat-plot: no such reports in these files\n", stderr);
        return false;
    }
    const std::vector<Call> calls = worst_first(reports.lines, options.thresholds);
    if (!options.list)
        return draw(options, reports, calls, caption);
    std::fputs(call_table(calls, caption).c_str(), stdout);
    return true;
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
