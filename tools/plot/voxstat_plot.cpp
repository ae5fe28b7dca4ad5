// voxstat-plot: draws a statistics or session-summary file, so that a bad call is seen at a glance.
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <string>

#include "tools/plot/file_bytes.h"
#include "tools/plot/gnuplot.h"
#include "tools/plot/session_plot.h"
#include "tools/plot/statistics_file.h"
#include "tools/plot/summary_plot.h"

namespace {

constexpr const char* USAGE =
    R"(Usage: voxstat-plot FILE.txt [-o OUT.png|OUT.svg]

Draws a statistics file (loss, jitter and round-trip time over time, a line for each direction of
each call) or a session-summary file (the calls as bars over their span). Without -o the picture
goes beside the file, its extension replaced by .png. Needs gnuplot.

Lines that cannot be read are named on standard error. The exit status is 0 when there is a
picture, 1 when not, 2 for a wrong command line.
)";

struct Options {
    std::string input, output;
};

std::optional<Options> parse(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; i++) {
        if (std::strcmp(argv[i], "-o") == 0 && i + 1 < argc)
            options.output = argv[++i];
        else if (argv[i][0] != '-' && options.input.empty())
            options.input = argv[i];
        else
            return std::nullopt;
    }
    if (options.input.empty())
        return std::nullopt;
    if (options.output.empty()) {
        const bool has_extension = options.input.ends_with(".txt");
        options.output =
            options.input.substr(0, options.input.size() - (has_extension ? 4 : 0)) + ".png";
    }
    return options;
}

std::string base_name(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);
}

void report_unread(const std::string& file_name, const StatisticsFile& file)
{
    for (const UnreadLines& lines : file.unread()) {
        if (lines.first == lines.last)
            (void)std::fprintf(stderr, "%s: cannot read line %zu: %s\n", file_name.c_str(),
                               lines.first, lines.reason.c_str());
        else
            (void)std::fprintf(stderr, "%s: cannot read lines %zu to %zu: %s\n", file_name.c_str(),
                               lines.first, lines.last, lines.reason.c_str());
    }
}

std::string script_for(const StatisticsFile& file, const Options& options)
{
    const std::string title = base_name(options.input);
    if (file.kind() == StatisticsKind::SESSION) {
        const SessionPlot plot(file.lines());
        return gnuplot_terminal(options.output, SessionPlot::WIDTH, SessionPlot::HEIGHT) +
               plot.gnuplot_script(title);
    }
    const SummaryPlot plot(file.lines());
    return gnuplot_terminal(options.output, SummaryPlot::WIDTH, plot.height()) +
           plot.gnuplot_script(title);
}

bool draw(const Options& options)
{
    const StatisticsFile file(read_file(options.input));
    report_unread(options.input, file);
    if (file.lines().empty()) {
        (void)std::fprintf(stderr, "%s: no reports to draw\n", options.input.c_str());
        return false;
    }
    create_file(options.output);
    if (!run_gnuplot(script_for(file, options)))
        return false;
    std::printf("%s: %zu %s drawn to %s\n", options.input.c_str(), file.lines().size(),
                file.kind() == StatisticsKind::SESSION ? "session reports"
                                                       : "end-of-session reports",
                options.output.c_str());
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::fputs(USAGE, stdout);
        return 0;
    }
    const std::optional<Options> options = parse(argc, argv);
    if (!options || !is_picture_name(options->output)) {
        (void)std::fputs(USAGE, stderr);
        return 2;
    }
    try {
        return draw(*options) ? 0 : 1;
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "voxstat-plot: %s\n", error.what());
        return 1;
    }
}
