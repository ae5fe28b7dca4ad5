#include "tools/check/service_unit.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <system_error>

#include "tools/check/command.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* COMMAND =
    "systemctl show voxstat.service -p User -p ReadWritePaths -p ReadOnlyPaths "
    "-p InaccessiblePaths -p ProtectSystem -p ProtectHome -p StateDirectory -p AmbientCapabilities "
    "-p PrivateTmp -p MainPID -p Environment -p IPAddressDeny -p IPAddressAllow";

bool is_at_or_below(const std::string& path, std::string place)
{
    while (place.size() > 1 && place.ends_with('/'))
        place.pop_back();
    return path == place || path.starts_with(place == "/" ? place : place + '/');
}

template <typename Places>
bool is_in(const std::string& path, const Places& places)
{
    return std::any_of(std::begin(places), std::end(places),
                       [&](const auto& place) { return is_at_or_below(path, place); });
}

// Resolves symbolic links, as far as the path exists.
std::string real_path(const std::string& path)
{
    std::error_code error;
    std::string real = fs::weakly_canonical(path, error);
    while (real.size() > 1 && real.ends_with('/'))
        real.pop_back();
    return error ? path : real;
}

}  // namespace

ServiceUnit::ServiceUnit(const std::string& user)
{
    read_command(COMMAND, [&](const std::string& line) {
        if (const std::size_t equals = line.find('='); equals != std::string::npos)
            _properties[line.substr(0, equals)] = line.substr(equals + 1);
    });
    if (_properties["User"] != user)
        _properties.clear();
}

bool ServiceUnit::is(const std::string& property, std::initializer_list<const char*> values) const
{
    const auto entry = _properties.find(property);
    return entry != _properties.end() &&
           std::find(values.begin(), values.end(), entry->second) != values.end();
}

bool ServiceUnit::has_private_tmp() const
{
    return is("PrivateTmp", {"yes"});
}

std::vector<std::string> ServiceUnit::words(const std::string& property) const
{
    std::vector<std::string> found;
    const auto entry = _properties.find(property);
    std::istringstream text(entry == _properties.end() ? "" : entry->second);
    for (std::string word; text >> word;)
        found.push_back(word);
    return found;
}

std::vector<std::string> ServiceUnit::state_directories() const
{
    std::vector<std::string> found;
    for (const std::string& name : words("StateDirectory"))
        found.push_back("/var/lib/" + name);
    return found;
}

ServiceUnit::Access ServiceUnit::access(const std::string& path) const
{
    const auto listed = [&](const char* property) {
        std::vector<std::string> places = words(property);
        for (std::string& place : places)
            place = real_path(place.substr(std::min(place.find('/'), place.size())));  // "-", "+"
        return places;
    };
    const std::string real = real_path(path);
    const bool at_home =
        is_in(real, std::initializer_list<const char*>{"/home", "/root", "/run/user"});
    if ((at_home && is("ProtectHome", {"yes", "tmpfs"})) ||
        is_in(real, listed("InaccessiblePaths")))
        return Access::HIDDEN;
    if (is_in(real, listed("ReadWritePaths")) || is_in(real, state_directories()))
        return Access::WRITABLE;
    if ((at_home && is("ProtectHome", {"read-only"})) || is_in(real, listed("ReadOnlyPaths")) ||
        (!at_home && is("ProtectSystem", {"strict"})) ||  // ProtectHome alone decides there
        (is("ProtectSystem", {"yes", "full"}) &&
         is_in(real, std::initializer_list<const char*>{"/usr", "/boot", "/efi"})) ||
        (is("ProtectSystem", {"full"}) && is_at_or_below(real, "/etc")))
        return Access::READ_ONLY;
    return Access::WRITABLE;
}

bool ServiceUnit::is_state_directory(const std::string& path) const
{
    const std::vector<std::string> directories = state_directories();
    return std::any_of(directories.begin(), directories.end(), [&](const std::string& directory) {
        return path == directory || path == directory + '/';
    });
}

bool ServiceUnit::may_bind_low_ports() const
{
    const std::vector<std::string> capabilities = words("AmbientCapabilities");
    return std::find(capabilities.begin(), capabilities.end(), "cap_net_bind_service") !=
           capabilities.end();
}

bool ServiceUnit::restricts_addresses() const
{
    return !words("IPAddressDeny").empty();
}

std::optional<Process> ServiceUnit::main_process() const
{
    const std::vector<std::string> number = words("MainPID");
    const pid_t id = number.empty() ? 0 : std::atoi(number.front().c_str());
    return id > 0 ? std::optional<Process>(id) : std::nullopt;
}

std::vector<std::string> ServiceUnit::environment() const
{
    std::vector<std::string> found = words("Environment");
    // systemd quotes settings with spaces; proxy addresses have none.
    for (std::string& setting : found)
        setting.erase(std::remove(setting.begin(), setting.end(), '"'), setting.end());
    return found;
}
