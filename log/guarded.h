// Keeps a writer thread running after a step that failed.
#pragma once

#include <exception>

// Runs one step. When it throws, because a file cannot be opened or memory is exhausted, passes the
// reason to report(const char*) and returns, so the caller's loop continues. Any thread.
template <typename Step, typename Report>
void guarded(Step step, Report report)
{
    try {
        step();
    } catch (const std::exception& error) {
        report(error.what());
    }
}
