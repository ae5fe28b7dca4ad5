// The guard of a loop that must go on.
#pragma once

#include <exception>

#include "log/simple_logger.h"

// Runs one step. When it throws, because memory is short or a file cannot be opened, logs the
// reason and gives the step up: what it was working on is lost, and the loop goes on. Any thread.
template <typename Step>
void guarded(Step step)
{
    try {
        step();
    } catch (const std::exception& error) {
        DBG->Log(DBG_ERROR, error.what());
    }
}
