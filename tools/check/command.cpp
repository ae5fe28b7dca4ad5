#include "tools/check/command.h"

#include <cstdio>
#include <cstdlib>

std::size_t read_command(const std::string& command,
                         const std::function<void(const std::string&)>& use)
{
    std::FILE* const output =
        popen((command + " 2>&-").c_str(), "r");  // NOLINT(cert-env33-c): no foreign text
    if (output == nullptr)
        return 0;
    char* line = nullptr;
    std::size_t room = 0, lines = 0;
    for (ssize_t length = 0; (length = getline(&line, &room, output)) > 0; lines++)
        use({line, static_cast<std::size_t>(length - 1)});  // without the line feed
    std::free(line);
    return pclose(output) == 0 ? lines : 0;
}
