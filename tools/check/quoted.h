// Quoted texts, for JSON and for the labels of Prometheus.
#pragma once

#include <string>
#include <string_view>

// Control characters and bytes that are not UTF-8 become '?', because neither format allows them.
std::string quoted(std::string_view text);
