#include "tools/sim/progress.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdio>

namespace {

constexpr std::chrono::milliseconds PAUSE(100);  // a reader's eye takes no more
constexpr const char* ERASE_LINE = "\r\x1b[K";

}  // namespace

Progress::Progress(const char* unit) : _unit(unit), _on_terminal(isatty(STDERR_FILENO) == 1) {}

Progress::~Progress()
{
    if (_shown)
        (void)std::fputs(ERASE_LINE, stderr);
}

void Progress::show(std::uint64_t done, std::uint64_t total)
{
    if (!_on_terminal)
        return;
    const auto now = std::chrono::steady_clock::now();
    if (now < _next)
        return;
    _next = now + PAUSE;
    _shown = true;
    (void)std::fprintf(stderr, "%s%" PRIu64 " of %" PRIu64 " %s", ERASE_LINE, done, total, _unit);
}
