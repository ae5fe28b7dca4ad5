// The running daemon on one screen: its receive queues, its files, and what has been lost, and
// where.
#pragma once

#include <string>

class Findings;
class Settings;

// Shows it on standard output. Every loss is a finding; so is a daemon that does not run.
void show_daemon(const Settings& settings, const std::string& config_path, Findings& findings);
