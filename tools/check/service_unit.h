// What systemd allows the packaged service, including all drop-ins.
#pragma once

#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/check/process.h"

class ServiceUnit {
public:
    // Asks systemctl. If there is no systemctl, or no unit that runs the daemon as this user, there
    // are no restrictions.
    explicit ServiceUnit(const std::string& user);

    enum class Access { WRITABLE, READ_ONLY, HIDDEN };

    // How the service can access an absolute path, regardless of owner and mode.
    Access access(const std::string& path) const;

    // Whether systemd creates this directory and resets its owner and mode at each start.
    bool is_state_directory(const std::string& path) const;

    // Whether its /tmp and /var/tmp are private.
    bool has_private_tmp() const;

    // Whether the service may open ports below 1024.
    bool may_bind_low_ports() const;

    // Whether the service may only reach the addresses in IPAddressAllow.
    bool restricts_addresses() const;

    bool is_installed() const { return !_properties.empty(); }

    // Its daemon, if it is running.
    std::optional<Process> main_process() const;

    // Its environment, as NAME=VALUE.
    std::vector<std::string> environment() const;

private:
    bool is(const std::string& property, std::initializer_list<const char*> values) const;
    std::vector<std::string> words(const std::string& property) const;
    std::vector<std::string> state_directories() const;

    std::map<std::string, std::string> _properties;  // of the unit; empty if there is none
};
