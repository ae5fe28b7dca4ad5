#include "faults/daemon.h"

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

Daemon::Daemon(std::string config, bool faulty)
    : faults(&Faults::shared(dir / "faults")), _binary(faulty ? VOXSTAT_FAULTY : VOXSTAT),
      _config(std::move(config))
{
    faults->map_log_directory(dir / "log");
}

Daemon::~Daemon()
{
    if (pid != 0 && !has_ended()) {
        kill(pid, SIGKILL);
        wait();
    }
    if (testing::Test::HasFailure())
        printf("%s printed:\n%s\n", _binary.c_str(), output().c_str());
}

void Daemon::spawn(const std::string& arguments)
{
    std::string command = "cd " + dir.path + " && TZ=UTC VOXSTAT_FAULTS=faults exec '" + _binary +
                          "' " + arguments + " " + redirection;
    char shell[] = "/bin/bash", option[] = "-c";
    char* const argv[] = {shell, option, command.data(), nullptr};
    _status = -1;
    faults->restart();
    EXPECT_EQ(0, posix_spawn(&pid, shell, nullptr, nullptr, argv, environ));
}

void Daemon::start()
{
    const std::string common =
        "log.network=2\nqos_stat_dir=" + dir.path + "\nsn_file_path=sn\nqos_port=";
    for (int attempt = 0; attempt < 20; attempt++) {
        port = free_port_pair();
        write_file(dir / "cfg", common + std::to_string(port) + "\n" + _config);
        spawn("-f cfg");
        const std::string sign = "listening on port " + std::to_string(port + 1);
        EXPECT_TRUE(eventually(
            [&] { return has_ended() || faults->calls("poll") > 0 || count(said(), sign) > 0; }));
        if (count(said(), "(errno: 98)") == 0)
            return;  // else another process was faster
        std::filesystem::remove_all(dir / "log");
    }
    ADD_FAILURE() << "the daemon finds no port";
}

bool Daemon::holds(const std::string& file, const std::string& text, std::size_t times) const
{
    return eventually([&] { return count("\n" + read_file(dir / file), text) >= times; });
}

bool Daemon::has_ended()
{
    return _status != -1 || waitpid(pid, &_status, WNOHANG) == pid;
}

int Daemon::wait()
{
    if (!eventually([this] { return has_ended(); }))
        return -1;
    return WIFSIGNALED(_status) ? 256 + WTERMSIG(_status) : WEXITSTATUS(_status);
}

int Daemon::stop(int signal)
{
    for (int attempt = 0; attempt < 20 && !has_ended(); attempt++) {
        kill(pid, signal);
        eventually([this] { return has_ended(); }, 1);
    }
    return wait();
}
