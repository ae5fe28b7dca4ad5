// The guard of a writer thread's loop.
#pragma once

#include <exception>

// Runs one step. When it throws, because a file cannot be opened or memory is short, hands the
// reason to report(const char*) and gives the step up: the loop goes on. Any thread.
template <typename Step, typename Report>
void guarded(Step step, Report report)
{
    try {
        step();
    } catch (const std::exception& error) {
        report(error.what());
    }
}
