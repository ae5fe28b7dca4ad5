// Texts of unknown origin, for terminals and pictures.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// The text, with an escape like "\x1b" or "\u202e" in place of each byte that is not UTF-8 and each
// character that does not take up a column of its own, such as control characters.
std::string printable(std::string_view text);

// How many columns of a terminal a printable text takes up.
std::size_t columns_of(std::string_view text);

// Blanks and then the text, so that it takes up this many columns at least.
std::string right_aligned(std::string_view text, std::size_t columns);
