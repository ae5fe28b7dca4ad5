// Judges the directories and files that the daemon writes, and the free space for them.
#pragma once

class DaemonUser;
class Findings;
class Settings;

void check_disks(const Settings& settings, const DaemonUser& user, Findings& findings);
