// The daemon's log in the journal of systemd, as journalctl shows it.
#pragma once

#include <sys/types.h>

#include <ctime>

class LossLog;

// Adds the lines that this process has logged since then (seconds since the epoch), and those of
// journald about lines of it that were suppressed. False when the caller may not read the journal,
// or there is none.
bool add_journal(pid_t process, time_t since, LossLog& log);
