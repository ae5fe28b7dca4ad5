// Checks the file with the unit's serial number.
#pragma once

#include <string>

class DaemonUser;
class Findings;
class Settings;
struct Service;

// Returns the serial number that the daemon adds to reports; empty if there is none.
std::string check_serial_number(const Settings& settings, const DaemonUser& user,
                                const Service& service, Findings& findings);
