// Checks the directories and files that the daemon writes, and the free space for them.
#pragma once

class DaemonUser;
class Findings;
class Settings;
struct Service;

void check_disks(const Settings& settings, const DaemonUser& user, const Service& service,
                 Findings& findings);
