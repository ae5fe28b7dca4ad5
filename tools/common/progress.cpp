#include "tools/common/progress.h"

#include <unistd.h>

#include <cstdio>

namespace {

constexpr std::chrono::seconds SHORT_RUN(1);     // shows no progress
constexpr std::chrono::milliseconds PAUSE(100);  // between two updates
constexpr const char* ERASE_LINE = "\r\x1b[K";

}  // namespace

Progress::Progress()
    : _on_terminal(isatty(STDERR_FILENO) == 1), _next(std::chrono::steady_clock::now() + SHORT_RUN)
{
}

bool Progress::is_due() const
{
    return _on_terminal && std::chrono::steady_clock::now() >= _next;
}

void Progress::show(const std::string& text)
{
    _next = std::chrono::steady_clock::now() + PAUSE;
    _shown = true;
    (void)std::fprintf(stderr, "%s%s", ERASE_LINE, text.c_str());
}

void Progress::erase()
{
    if (_shown)
        (void)std::fputs(ERASE_LINE, stderr);
    _shown = false;
}
