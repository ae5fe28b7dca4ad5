// Entry point: command line, signals, and the order in which configuration, logger and main loop
// start and stop. MainLoop::stop_components() has the order in which the components stop.
// The exit status is 0 on every path, as voxstat(8) tells operators.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "app/main_loop.h"
#include "config/config_file.h"
#include "log/simple_logger.h"

namespace {

constexpr const char* DEFAULT_CONFIG = "voxstat.cfg";

struct StopSignal {
    int number;
    const char* name;
};
// SIGHUP keeps its default action and terminates the daemon, as voxstat(8) tells operators.
constexpr StopSignal STOP_SIGNALS[] = {
    {SIGTERM, "SIGTERM"}, {SIGINT, "SIGINT"}, {SIGQUIT, "SIGQUIT"}};

void usage()
{
    std::puts("Usage: voxstat [-f <filename>]\n"
              "If filename is missing then default voxstat.cfg is assumed.");
}

void sig_handler(int /*signal_number*/)
{
    if (MainLoop::isRunning())
        MainLoop::stop();
}

// The configuration file named on the command line; nothing if the command line is invalid.
std::optional<std::string> config_file_name(int argc, char** argv)
{
    if (argc == 1)
        return DEFAULT_CONFIG;
    if (argc == 3 && std::strcmp(argv[1], "-f") == 0)
        return argv[2];
    return std::nullopt;
}

// The parent process may have blocked these signals, and processes and threads inherit the mask of
// their creator. So call this before the first thread is created.
void unblock_stop_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const StopSignal& signal : STOP_SIGNALS)
        sigaddset(&signals, signal.number);
    (void)pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);  // fails only for an invalid request
}

// Some supervisors start a process with its standard descriptors closed. A socket or a statistics
// file must not take their place: it would be taken for "no socket", or receive printed text.
void open_standard_descriptors()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++)
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF)
            (void)open("/dev/null", O_RDWR);  // takes the lowest free number, which is fd
}

void install_stop_handlers()
{
    for (const StopSignal& signal : STOP_SIGNALS)
        if (std::signal(signal.number, sig_handler) == SIG_ERR)
            DBG->Log(DBG_ERROR, {"Failed to register ", signal.name, " signal handler..."});
}

// Null when the file cannot be opened; prints the reason to standard output.
std::unique_ptr<ConfigFile> load_config(const std::string& file_name)
{
    try {
        return std::make_unique<ConfigFile>(file_name, '=');
    } catch (const std::invalid_argument& error) {
        std::puts(error.what());
        usage();
        return nullptr;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    // The eight threads allocate little and rarely together. Heaps of their own, which the C
    // library would give them, cost more memory than the daemon itself needs.
    (void)mallopt(M_ARENA_MAX, 1);
    open_standard_descriptors();
    unblock_stop_signals();
    // A closed connection, a closed pipe on standard output or a limit on the size of files must
    // not terminate the daemon. The write fails instead, and its caller handles this.
    (void)std::signal(SIGPIPE, SIG_IGN);
    (void)std::signal(SIGXFSZ, SIG_IGN);

    const std::optional<std::string> file_name = config_file_name(argc, argv);
    if (!file_name) {
        usage();
        return 0;
    }
    std::unique_ptr<ConfigFile> config = load_config(*file_name);
    if (config == nullptr)
        return 0;
    DBG->init(config.get());
    install_stop_handlers();

    auto main_loop = std::make_unique<MainLoop>(config.get());
    main_loop->start();
    main_loop.reset();
    config.reset();

    DBG->Log(DBG_INFO, "Terminating application...");
    DBG->dbg_stop();
    return 0;
}
