// Texts between quotation marks, for JSON and for the labels of Prometheus.
#pragma once

#include <string>
#include <string_view>

// Control characters and bytes that are not UTF-8, which neither reader takes, become '?'.
std::string quoted(std::string_view text);
