// The daemon as a service of this machine: what systemd allows it, and its process if it runs.
#pragma once

#include <optional>

#include "tools/check/process.h"
#include "tools/check/service_unit.h"

class DaemonUser;
class Settings;

struct Service {
    ServiceUnit unit;
    std::optional<Process> daemon;  // on the port of the reports, or else the unit's

    static Service find(const Settings& settings, const DaemonUser& user);
};
