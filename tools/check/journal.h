// The daemon's log in the journal of systemd, as journalctl shows it.
#pragma once

#include <sys/types.h>

#include <ctime>

class LossLog;

// Adds the lines that this process has logged since a time (seconds since the epoch), and
// journald's messages about suppressed lines of it. Returns false if the caller cannot read the
// journal or there is none.
bool add_journal(pid_t process, time_t since, LossLog& log);
