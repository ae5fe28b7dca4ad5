// The lines of a statistics or session-summary file, including those that cannot be read.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>

#include "tools/plot/input_file.h"
#include "tools/plot/statistics_line.h"

// Consecutive lines that cannot be read for the same reason; the first line is 1.
struct UnreadLines {
    std::size_t first, last;
    const char* reason;
};

class StatisticsFile {
public:
    using Tell = std::function<void(const UnreadLines&)>;

    // Skips column headers anywhere in the file. The first header, or the first readable line if no
    // header precedes it, determines the kind of the file. A last line without line feed counts as
    // unread, because the daemon may still be writing it. The input must outlive the object.
    StatisticsFile(InputFile& input, Tell tell_unread);

    // Sets the next readable line; its texts are valid until the next call. Returns false at the
    // end.
    bool next(StatisticsLine& line);

    // Nothing before the first header or readable line.
    std::optional<StatisticsKind> kind() const { return _kind; }

private:
    const char* read_line(std::string_view text, StatisticsLine& line);
    void keep_unread(const char* reason);
    void tell_unread();

    InputFile& _input;
    Tell _tell_unread;
    std::size_t _number = 0;  // of the line
    std::optional<StatisticsKind> _kind;
    std::optional<UnreadLines> _unread;  // not reported yet
};
