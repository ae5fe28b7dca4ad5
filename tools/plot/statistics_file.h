// The lines of one statistics or session-summary file, and the ones that could not be read.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>

#include "tools/plot/input_file.h"
#include "tools/plot/statistics_line.h"

// Lines one after the other that cannot be read for the same reason; counted from 1.
struct UnreadLines {
    std::size_t first, last;
    const char* reason;
};

class StatisticsFile {
public:
    using Tell = std::function<void(const UnreadLines&)>;

    // Column headers, wherever they are, are skipped. The first header or, without one, the first
    // line that can be read decides which kind of file it is. The daemon may still be writing the
    // last line: without its line feed it counts as unread. The input must outlive the object.
    StatisticsFile(InputFile& input, Tell tell_unread);

    // The next line that can be read; its texts last until the next call. False after the last one.
    bool next(StatisticsLine& line);

    // Nothing as long as there was neither a header nor a line that can be read.
    std::optional<StatisticsKind> kind() const { return _kind; }

private:
    const char* read_line(std::string_view text, StatisticsLine& line);
    void keep_unread(const char* reason);
    void tell_unread();

    InputFile& _input;
    Tell _tell_unread;
    std::size_t _number = 0;  // of the line
    std::optional<StatisticsKind> _kind;
    std::optional<UnreadLines> _unread;  // not told yet
};
