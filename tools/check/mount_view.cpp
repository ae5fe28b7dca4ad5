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
    _own = open_read("/proc/self/ns/mnt");
    _directory = open_read(".");
    const int theirs = open_read("/proc/" + std::to_string(process->id()) + "/ns/mnt");
    // The kernel refuses a thread that shares its root or working directory with another.
    _entered = _own != -1 && _directory != -1 && theirs != -1 && unshare(CLONE_FS) == 0 &&
               setns(theirs, CLONE_NEWNS) == 0;
    if (theirs != -1)
        (void)close(theirs);  // only needed to enter it
}

MountView::~MountView()
{
    if (_entered && (setns(_own, CLONE_NEWNS) != 0 || fchdir(_directory) != 0))
        std::abort();  // a mixture of two views would give wrong findings
    for (const int fd : {_own, _directory})
        if (fd != -1)
            (void)close(fd);
}
