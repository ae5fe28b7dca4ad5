#include "tools/check/journal.h"

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "tools/check/loss_log.h"

namespace {

// Returns how many lines journalctl printed; 0 when it failed.
std::size_t read_journal(const std::string& filter, const std::function<void(std::string)>& use)
{
    const std::string command = "journalctl --quiet --no-pager --output=cat " + filter + " 2>&-";
    std::FILE* const output = popen(command.c_str(), "r");  // NOLINT(cert-env33-c): no foreign text
    if (output == nullptr)
        return 0;
    char* line = nullptr;
    std::size_t room = 0, lines = 0;
    for (ssize_t length = 0; (length = getline(&line, &room, output)) > 0; lines++)
        use({line, static_cast<std::size_t>(length - 1)});  // without the line feed
    std::free(line);
    return pclose(output) == 0 ? lines : 0;
}

}  // namespace

bool add_journal(pid_t process, time_t since, LossLog& log)
{
    const std::string id = std::to_string(process);
    // A healthy daemon may log nothing. Then any line of the system's shows that one may read them.
    return read_journal("--since=@" + std::to_string(since) + " _PID=" + id + " + OBJECT_PID=" + id,
                        [&](const std::string& line) { log.add_line(line); }) != 0 ||
           read_journal("--lines=1 _UID=0", [](const std::string&) {}) != 0;
}
