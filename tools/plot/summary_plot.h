// Draws a session-summary file: each end-of-session report as a bar over its call's span, coloured
// by its loss, the figures beside it.
#pragma once

#include <string>
#include <vector>

#include "tools/plot/quality_peaks.h"
#include "tools/plot/statistics_line.h"
#include "tools/plot/time_axis.h"

class SummaryPlot {
public:
    static constexpr int WIDTH = 1200;

    // The lines, one at least, must outlive the object.
    explicit SummaryPlot(const std::vector<StatisticsLine>& lines);

    // In pixels; grows with the number of bars.
    int height() const;

    // The gnuplot commands behind those that choose the terminal.
    std::string gnuplot_script(const std::string& title) const;

private:
    struct Bar {
        const StatisticsLine* line;
        double severity;
        bool worst, labelled;
    };

    void choose_labelled();
    std::string bar_rows() const;
    std::string labels(const std::string& title) const;

    TimeAxis _axis;
    std::vector<Bar> _bars;  // in the order of their begin, top first
};
