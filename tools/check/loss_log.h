// What the daemon's log says of losses, added up by kind.
#pragma once

#include <ctime>
#include <string>
#include <vector>

class LossLog {
public:
    struct Kind {
        const char* what;  // as the metrics name it
        const char* lost;  // to be read before the count
        const char* remedy;
        unsigned long count;
    };

    // Lines that were logged earlier (seconds since the epoch) do not count.
    explicit LossLog(time_t since);

    // Adds the lines of this file. False when it cannot be read.
    bool add_file(const std::string& path);

    void add_line(const std::string& line);

    const std::vector<Kind>& kinds() const { return _kinds; }

private:
    void add_message(const std::string& level, const std::string& message);

    time_t _since;
    bool _is_due = true;          // the last line with a time was logged since then
    unsigned long _unsummed = 0;  // overflows of the posts that no message has added up yet
    std::vector<Kind> _kinds;
};
