// Draws session-summary files: each end-of-session report as a bar from its first packet to its
// last one, coloured by its loss, the figures beside it.
#pragma once

#include <string>
#include <vector>

#include "tools/plot/calls.h"
#include "tools/plot/caption.h"
#include "tools/plot/time_axis.h"

class SummaryPlot {
public:
    static constexpr int WIDTH = 1200;

    // The calls, one at least and the worst one first, and the caption must outlive the object. So
    // many calls are shown as fit.
    SummaryPlot(const std::vector<Call>& calls, const Caption& caption);

    // In pixels, 1,600 at most; grows with the number of bars.
    int height() const;

    // The gnuplot commands behind those that choose the terminal.
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
