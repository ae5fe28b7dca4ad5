// Drawing with the program gnuplot.
#pragma once

#include <string>
#include <string_view>

// Passes the script to gnuplot, which prints errors to standard error. Returns false if gnuplot
// cannot be started or fails.
bool run_gnuplot(std::string_view script);

// The text as a gnuplot string, with quotes; unprintable characters are escaped.
std::string gnuplot_string(std::string_view text);

// Whether the name ends in .png or .svg, the formats that can be drawn.
bool is_picture_name(const std::string& file_name);

// The start of a script: sets the file and the size in pixels.
std::string gnuplot_terminal(const std::string& file_name, int width, int height);
