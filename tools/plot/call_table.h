// The calls as a text table.
#pragma once

#include <string>
#include <vector>

#include "tools/plot/calls.h"
#include "tools/plot/caption.h"

// A heading, one line per call, the worst first, and a line with the number of bad calls.
std::string call_table(const std::vector<Call>& calls, const Caption& caption);
