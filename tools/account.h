// What was found in a set of output files.
#pragma once

#include <cstdint>

#include "tools/number_ledger.h"

struct Account {
    NumberLedger ledger;      // the numbers of the load that is there
    std::uint64_t other = 0;  // whole lines or records that carry no number
    std::uint64_t torn = 0;   // remains of lines or records
};
