// Which numbers were found, how often, and which of a range were not.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

struct NumberRange {
    std::uint32_t first, last;
};

struct NumberBalance {
    std::uint64_t count = 0;       // numbers that were expected
    std::uint64_t distinct = 0;    // of these, found at least once
    std::uint64_t duplicates = 0;  // findings beyond the first one of each
    std::uint64_t outside = 0;     // findings that were not expected
    std::uint64_t missing = 0;
    std::vector<NumberRange> missing_ranges;
};

class NumberLedger {
public:
    void add(std::uint32_t number) { _found.push_back(number); }
    std::uint64_t size() const { return _found.size(); }

    // Compares with the expected numbers: count of them from first on, or, without a count, up to
    // the highest one found.
    NumberBalance balance(std::uint32_t first, std::optional<std::uint64_t> count);

private:
    std::vector<std::uint32_t> _found;
};
