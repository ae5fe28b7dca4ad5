#include "tools/number_ledger.h"

#include <algorithm>

NumberBalance NumberLedger::balance(std::uint32_t first, std::optional<std::uint64_t> count)
{
    std::sort(_found.begin(), _found.end());
    const bool none_expected = _found.empty() || _found.back() < first;
    NumberBalance result;
    result.count = count.value_or(none_expected ? 0 : std::uint64_t{_found.back()} - first + 1);

    const std::uint64_t end = first + result.count;
    std::uint64_t next = first;  // the lowest number that was not come to yet
    const auto skip_to = [&result, &next](std::uint64_t number) {
        if (number > next) {
            result.missing += number - next;
            result.missing_ranges.push_back(
                {static_cast<std::uint32_t>(next), static_cast<std::uint32_t>(number - 1)});
        }
    };
    for (const std::uint32_t number : _found) {
        if (number < first || number >= end) {
            result.outside++;
        } else if (number < next) {
            result.duplicates++;
        } else {
            skip_to(number);
            result.distinct++;
            next = std::uint64_t{number} + 1;
        }
    }
    skip_to(end);
    return result;
}
