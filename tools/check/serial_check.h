// Judges the file with the unit's serial number.
#pragma once

#include <string>

class DaemonUser;
class Findings;
class Settings;
struct Service;

// Returns the serial number as the daemon puts it into reports; empty without one.
std::string check_serial_number(const Settings& settings, const DaemonUser& user,
                                const Service& service, Findings& findings);
