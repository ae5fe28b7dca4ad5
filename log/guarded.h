// The guard of a loop that must go on.
#pragma once

#include <exception>

#include "log/simple_logger.h"

// Runs one step. A step that throws, for want of memory or of a file, is given up and its reason
// logged; what it was at work on is lost, the next step is tried all the same. Any thread.
template <typename Step>
void guarded(Step step)
{
    try {
        step();
    } catch (const std::exception& error) {
        DBG->Log(DBG_ERROR, error.what());
    }
}
