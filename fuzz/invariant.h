// Checks that the fuzz targets share.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

// Aborts if the condition does not hold, so that the fuzzer keeps the input.
inline void expect(bool holds, const char* what)
{
    if (holds)
        return;
    std::fprintf(stderr, "invariant broken: %s\n", what);
    std::abort();
}

inline void expect_equal(std::string_view wanted, std::string_view got, const char* what)
{
    if (wanted == got)
        return;
    std::fprintf(stderr, "invariant broken: %s\nwanted <%.*s>\ngot    <%.*s>\n", what,
                 static_cast<int>(wanted.size()), wanted.data(), static_cast<int>(got.size()),
                 got.data());
    std::abort();
}
