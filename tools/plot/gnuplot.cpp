#include "tools/plot/gnuplot.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "tools/plot/printable.h"

namespace {

// Starts gnuplot with one end of a pipe as its standard input. Returns the error number.
int start_gnuplot(pid_t& child, int& script_fd)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == -1)
        return errno;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[0], STDIN_FILENO);
    char name[] = "gnuplot";
    char no_start_up_files[] = "-d";  // the caller's own settings could change the picture
    char* arguments[] = {name, no_start_up_files, nullptr};
    const int error = posix_spawnp(&child, name, &actions, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[0]);
    if (error != 0)
        close(ends[1]);
    script_fd = ends[1];
    return error;
}

bool write_all(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written == -1)
            return false;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

std::string quoted(std::string_view text)
{
    std::string result = "'";
    for (const char c : text) {
        if (c == '\'')
            result += c;  // a doubled quote is a literal one
        result += c;
    }
    return result + "'";
}

}  // namespace

bool run_gnuplot(std::string_view script)
{
    // If gnuplot exits early, this program must survive to report it.
    (void)std::signal(SIGPIPE, SIG_IGN);
    pid_t child = 0;
    int script_fd = -1;
    if (const int error = start_gnuplot(child, script_fd); error != 0) {
        (void)std::fprintf(stderr, "voxstat-plot: cannot start gnuplot: %s%s\n",
                           std::strerror(error),
                           error == ENOENT ? "; install gnuplot-nox, or use --list" : "");
        return false;
    }
    const bool all_written = write_all(script_fd, script);
    close(script_fd);
    int status = 0;
    return waitpid(child, &status, 0) == child && status == 0 && all_written;
}

std::string gnuplot_string(std::string_view text)
{
    return quoted(printable(text));
}

bool is_picture_name(const std::string& file_name)
{
    return file_name.ends_with(".png") || file_name.ends_with(".svg");
}

std::string gnuplot_terminal(const std::string& file_name, int width, int height)
{
    const char* const terminal =
        file_name.ends_with(".svg") ? "svg background 'white'" : "pngcairo";
    return std::string("set terminal ") + terminal + " noenhanced font 'sans,11' size " +
           std::to_string(width) + "," + std::to_string(height) +
           "\nset encoding utf8\nset output " + quoted(file_name) + "\n";
}
