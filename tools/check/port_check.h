// Judges whether the daemon's user may open both ports now.
#pragma once

class DaemonUser;
class Findings;
class Settings;

void check_ports(const Settings& settings, const DaemonUser& user, Findings& findings);
