// What the daemon's log says of losses, added up by kind.
#pragma once

#include <ctime>
#include <string>
#include <vector>

class LossLog {
public:
    struct Kind {
        const char* text;    // how a line of the log says it
        bool counts_itself;  // a count follows the text
        const char* lost;    // what was lost, to be read behind the count
        const char* remedy;
        unsigned long count = 0;
    };

    // Lines that were logged earlier (seconds since the epoch) do not count.
    explicit LossLog(time_t since);

    // Adds the lines of this file. False when it cannot be read.
    bool add(const std::string& path);

    const std::vector<Kind>& kinds() const { return _kinds; }

private:
    void add_line(const std::string& line);

    time_t _since;
    std::vector<Kind> _kinds;
};
