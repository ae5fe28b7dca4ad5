// The losses in the daemon's log, summed by kind.
#pragma once

#include <ctime>
#include <string>
#include <vector>

class LossLog {
public:
    struct Kind {
        const char* what;  // the value of the metric's label
        const char* lost;  // text before the count
        const char* remedy;
        unsigned long count;
    };

    // Lines logged before this time (seconds since the epoch) do not count.
    explicit LossLog(time_t since);

    // Adds the lines of this file. Returns false if it cannot be read.
    bool add_file(const std::string& path);

    void add_line(const std::string& line);

    const std::vector<Kind>& kinds() const { return _kinds; }

private:
    void add_message(const std::string& level, const std::string& message);

    time_t _since;
    bool _is_due = true;          // the last line with a time was logged since then
    unsigned long _unsummed = 0;  // overflows of the posts that no total contains yet
    std::vector<Kind> _kinds;
};
