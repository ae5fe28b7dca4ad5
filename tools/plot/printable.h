// Texts of unknown origin, for terminals and pictures.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Replaces each byte that is not UTF-8, and each character without width, such as a control
// character, by an escape like "\x1b" or "\u202e".
std::string printable(std::string_view text);

// The width of a printable text on a terminal.
std::size_t columns_of(std::string_view text);

// Adds spaces before the text to make it at least this wide.
std::string right_aligned(std::string_view text, std::size_t columns);
