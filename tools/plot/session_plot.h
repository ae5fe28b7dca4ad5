// Draws statistics files: loss, jitter, round-trip time and, if the unit is known, speech quality
// over time, with one line per stream.
#pragma once

#include <string>
#include <vector>

#include "tools/plot/calls.h"
#include "tools/plot/caption.h"
#include "tools/plot/time_axis.h"

class SessionPlot {
public:
    static constexpr int WIDTH = 1200;

    // At least one call, the worst first. The calls and the caption must outlive the object.
    SessionPlot(const std::vector<Call>& calls, const Caption& caption);

    int height() const;  // in pixels

    // The gnuplot commands that follow the choice of the terminal.
    std::string gnuplot_script() const;

private:
    struct Panel;

    std::vector<Panel> panels() const;
    void find_longest_gap();
    std::string style_of(std::size_t rank) const;
    std::string rows(const std::vector<Sample>& samples) const;
    std::string grey_rows() const;
    std::string grey_ranges() const;
    std::string data_blocks() const;
    std::string titles() const;
    std::string diagram(const Panel& panel, int top, bool last) const;
    std::string worst_label(const Panel& panel) const;
    std::string key_entries(const Panel& panel) const;
    std::string curves(const Panel& panel) const;

    const std::vector<Call>& _calls;
    const Caption& _caption;
    TimeAxis _axis;
    bool _many_grey;            // too many to draw each curve
    double _longest_gap_s = 0;  // a line is not drawn across a longer time without reports
};
