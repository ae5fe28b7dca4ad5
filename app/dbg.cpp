#include "log/simple_logger.h"

// In the library, not beside main(), so that everything that links the library can log.
SimpleLogger* const DBG = SimpleLogger::getInstance();
