// Checks whether the daemon's user can open both ports now.
#pragma once

class DaemonUser;
class Findings;
class Settings;
struct Service;

void check_ports(const Settings& settings, const DaemonUser& user, const Service& service,
                 Findings& findings);
