// Draws a statistics file: loss, jitter and round-trip time over time, a line for each direction
// of each call.
#pragma once

#include <string>
#include <vector>

#include "tools/plot/quality_peaks.h"
#include "tools/plot/statistics_line.h"
#include "tools/plot/time_axis.h"

class SessionPlot {
public:
    static constexpr int WIDTH = 1200, HEIGHT = 900;

    // The lines, one at least, must outlive the object.
    explicit SessionPlot(const std::vector<StatisticsLine>& lines);

    // The gnuplot commands behind those that choose the terminal.
    std::string gnuplot_script(const std::string& title) const;

private:
    using Samples = std::vector<const StatisticsLine*>;
    struct Call {
        Samples near_end, far_end;
        QualityPeaks peaks;
    };
    struct Panel;

    static const StatisticsLine& any_line(const Call& call);
    void collect_calls(const std::vector<StatisticsLine>& lines);
    void find_longest_gap();
    std::string rows(const Samples& samples) const;
    std::string data_blocks() const;
    std::string titles(const std::string& title) const;
    std::string diagram(const Panel& panel) const;
    std::string peak_label(const Panel& panel) const;
    std::string key_entries() const;
    std::string curves(const Panel& panel) const;

    TimeAxis _axis;
    QualityPeaks _highest;
    double _longest_gap_s = 0;  // a line is not drawn across a longer time without reports
    std::vector<Call> _calls;   // the worst one first
};
