// What a fuzz target demands of the code under test.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

// Ends the run when something that must hold does not: the fuzzer keeps the input that did it.
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
