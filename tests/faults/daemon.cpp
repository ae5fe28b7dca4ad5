#include "faults/daemon.h"

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

Daemon::Daemon(const std::string& config) : faults(&Faults::shared((dir / "faults").c_str()))
{
    std::filesystem::create_directories(dir / "root/var/log");
    faults->set_root(dir / "root");
    faults->any_port = true;
    write_file(dir / "cfg", "sn_file_path=sn\nqos_stat_dir=" + dir.path + "\n" + config);
}

Daemon::~Daemon()
{
    if (pid != 0 && !has_ended()) {
        kill(pid, SIGKILL);
        wait();
    }
}

void Daemon::start()
{
    std::string command = "cd " + dir.path +
                          " && TZ=UTC VOXSTAT_FAULTS=faults exec '" VOXSTAT_FAULTY
                          "' -f cfg >stdout";
    char shell[] = "/bin/bash", option[] = "-c";
    char* const argv[] = {shell, option, command.data(), nullptr};
    EXPECT_EQ(0, posix_spawn(&pid, shell, nullptr, nullptr, argv, environ));
    EXPECT_TRUE(eventually([this] { return has_ended() || faults->calls("poll") > 0; }));
}

std::string Daemon::said() const
{
    return LogCapture::bare(read_file(dir / "stdout") +
                            read_file(dir / "root/var/log/current/d.log"));
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
