// The daemon as a service of this machine: what systemd allows it, and its process if it runs.
#pragma once

#include <optional>

#include "tools/check/process.h"
#include "tools/check/service_unit.h"

class DaemonUser;
class Settings;

struct Service {
    ServiceUnit unit;
    std::optional<Process> daemon;  // the one on the report port, or else the one of the unit

    static Service find(const Settings& settings, const DaemonUser& user);
};
