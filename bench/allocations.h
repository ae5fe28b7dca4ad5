// How often memory was allocated with new since the program began. The C library's own malloc, as
// in asprintf, is not counted.
#pragma once

#include <cstddef>

std::size_t allocations();
