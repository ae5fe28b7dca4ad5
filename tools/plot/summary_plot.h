// Draws session-summary files: each session summary as a bar from the first to the last packet,
// coloured by its loss, with the figures beside it.
#pragma once

#include <string>
#include <vector>

#include "tools/plot/calls.h"
#include "tools/plot/caption.h"
#include "tools/plot/time_axis.h"

class SummaryPlot {
public:
    static constexpr int WIDTH = 1200;

    // At least one call, the worst first. The calls and the caption must outlive the object. Shows
    // as many calls as fit.
    SummaryPlot(const std::vector<Call>& calls, const Caption& caption);

    // In pixels, at most 1600; grows with the number of bars.
    int height() const;

    // The gnuplot commands that follow the choice of the terminal.
    std::string gnuplot_script() const;

private:
    struct Bar {
        const Call* call;
        const Stream* stream;
    };

    void choose_bars();
    double right() const;
    std::string bar_rows() const;
    std::string labels() const;
    std::string figures_of(const Stream& stream) const;

    const std::vector<Call>& _calls;
    const Caption& _caption;
    TimeAxis _axis;
    std::vector<Bar> _bars;  // top first
    std::size_t _shown = 0;  // calls
};
