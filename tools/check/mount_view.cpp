#include "tools/check/mount_view.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace {

int open_read(const std::string& path)
{
    return open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

}  // namespace

MountView::MountView(const std::optional<Process>& process)
{
    if (!process)
        return;
    _root = open_read("/");
    _directory = open_read(".");
    // Its root leads to its mounts, and is the right one in a container without mounts of its own.
    // All threads have one root and one working directory unless a thread asks for its own.
    _entered = _root != -1 && _directory != -1 && unshare(CLONE_FS) == 0 &&
               chroot(("/proc/" + std::to_string(process->id()) + "/root").c_str()) == 0;
    if (_entered && chdir("/") != 0)
        std::abort();
}

MountView::~MountView()
{
    if (_entered && (fchdir(_root) != 0 || chroot(".") != 0 || fchdir(_directory) != 0))
        std::abort();  // a mixture of two views would give wrong findings
    for (const int fd : {_root, _directory})
        if (fd != -1)
            (void)close(fd);
}
