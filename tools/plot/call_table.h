// The calls as a text table.
#pragma once

#include <string>
#include <vector>

#include "tools/plot/calls.h"
#include "tools/plot/caption.h"

// A heading, a line for each call, the worst one first, and a line that says how many are bad.
std::string call_table(const std::vector<Call>& calls, const Caption& caption);
