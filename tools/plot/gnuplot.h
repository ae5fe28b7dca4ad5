// Drawing by the program gnuplot.
#pragma once

#include <string>
#include <string_view>

// Feeds the script to gnuplot, which may complain on standard error. False when it cannot be
// started or fails.
bool run_gnuplot(std::string_view script);

// The text as a gnuplot string, quotes included; what cannot be shown is escaped.
std::string gnuplot_string(std::string_view text);

// Whether the name ends as that of a picture that can be drawn: .png or .svg.
bool is_picture_name(const std::string& file_name);

// The beginning of a script: draws into the picture, on a canvas of this many pixels.
std::string gnuplot_terminal(const std::string& file_name, int width, int height);
