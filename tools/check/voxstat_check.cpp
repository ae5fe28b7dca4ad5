// voxstat-check: checks the configuration of the daemon, and shows what the daemon has lost.
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <system_error>

#include "tools/check/daemon_user.h"
#include "tools/check/disk_check.h"
#include "tools/check/findings.h"
#include "tools/check/json_format.h"
#include "tools/check/live_state.h"
#include "tools/check/live_text.h"
#include "tools/check/metrics.h"
#include "tools/check/nagios_format.h"
#include "tools/check/options.h"
#include "tools/check/port_check.h"
#include "tools/check/prometheus_format.h"
#include "tools/check/serial_check.h"
#include "tools/check/service.h"
#include "tools/check/settings.h"
#include "tools/check/trial_post.h"
#include "tools/check/url_check.h"
#include "tools/check/value_check.h"

namespace {

constexpr int ERROR_STATUS = 2, UNKNOWN_STATUS = 3;

// Binary files contain zero bytes, and so do texts in UTF-16.
bool has_zero_bytes(const std::string& file)
{
    std::ifstream stream(file);
    const std::istreambuf_iterator<char> begin(stream), end;
    return std::find(begin, end, '\0') != end;
}

// Returns false, after adding a finding, if the daemon could not read settings from the file.
bool can_be_loaded(const std::string& file, const DaemonUser& user, Findings& findings)
{
    std::error_code error;
    const auto type = std::filesystem::status(file, error).type();
    const std::string closed = user.closed_directory(std::filesystem::absolute(file));
    if (type == std::filesystem::file_type::none)
        findings.error(0, "you cannot access this file: ", error.message(),
                       "; run sudo voxstat-check");
    else if (type == std::filesystem::file_type::directory)
        findings.error(0, "this is a directory, so the daemon would use its defaults; name the ",
                       "configuration with -f FILE");
    else if (type == std::filesystem::file_type::not_found)
        findings.error(0,
                       "the file does not exist, so the daemon would exit immediately; name the ",
                       "configuration with -f FILE");
    else if (type != std::filesystem::file_type::regular)
        findings.error(0, "this is not a regular file; name the configuration with -f FILE");
    else if (user.access(file, R_OK) != 0)
        findings.error(0, "the user ", user.name(),
                       " cannot read this file, so the daemon would exit immediately; ",
                       closed.empty()
                           ? "chgrp " + user.group() + ' ' + file + " && chmod g+r " + file
                           : "chmod a+x " + closed);
    else if (access(file.c_str(), R_OK) != 0)
        findings.error(0, "you cannot read this file; run sudo voxstat-check");
    else if (has_zero_bytes(file))
        findings.error(0, "this is not a text file, and the daemon ignores what it cannot parse; ",
                       "save it as UTF-8, or name another file with -f FILE");
    return findings.status() == 0;
}

// Returns the state of the running daemon, with --live and if the configuration can be loaded.
std::optional<LiveState> check(const Options& options, Findings& findings)
{
    const DaemonUser user(options.user);
    if (!can_be_loaded(options.file, user, findings))
        return std::nullopt;
    const Settings settings(options.file, findings);
    check_values(settings, findings);
    check_url(settings, options.file, user, findings);
    const Service service = Service::find(settings, user);
    check_ports(settings, user, service, findings);
    check_disks(settings, user, service, findings);
    const std::string serial_number = check_serial_number(settings, user, service, findings);
    if (!user.can_be_asked())
        findings.note(0, "the permissions of the user ", user.name(), " were not checked; ",
                      "run sudo voxstat-check");
    if (options.format == Format::TEXT)
        findings.print();  // before the checks that take time
    if (options.post)
        post_once(settings, serial_number, service, findings);
    if (!options.live)
        return std::nullopt;
    if (options.format == Format::TEXT)
        findings.print();
    return LiveState::gather(settings, options, findings);
}

void show(const Options& options, const LiveState& state, const Findings& findings)
{
    const std::vector<Metric> metrics = metrics_of(state, findings);
    if (options.format == Format::NAGIOS)
        print_nagios(findings.status(), findings.headline(), metrics);
    else if (options.format == Format::JSON)
        print_json(metrics, options.file, findings);
    else if (options.format == Format::PROMETHEUS)
        print_prometheus(metrics);
    else
        print_text(state);
}

// Returns the exit status.
int run(const Options& options)
{
    Findings findings(options.file);
    const std::optional<LiveState> state = check(options, findings);
    if (state)
        show(options, *state, findings);
    else if (options.format != Format::TEXT)
        throw std::runtime_error(options.file + ": " + findings.headline());
    if (options.format == Format::TEXT) {
        findings.print();
        std::cout << options.file << ": " << findings.summary() << '\n';
    }
    return findings.status();
}

}  // namespace

int main(int argc, char** argv)
{
    const Options options = Options::read(argc, argv);
    try {
        return run(options);
    } catch (const std::exception& error) {
        if (options.format == Format::NAGIOS) {
            print_nagios(UNKNOWN_STATUS, error.what(), {});
            return UNKNOWN_STATUS;
        }
        std::cerr << "voxstat-check: " << error.what() << '\n';
        return ERROR_STATUS;
    }
}
