// The lines of one statistics or session-summary file, and the ones that could not be read.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/plot/statistics_line.h"

// Lines one after the other that cannot be read for the same reason; counted from 1.
struct UnreadLines {
    std::size_t first, last;
    std::string reason;
};

class StatisticsFile {
public:
    // Column headers, wherever they are, are skipped. The first header or, without one, the first
    // line that can be read decides which kind of file it is. The daemon may still be writing the
    // last line: without its line feed it counts as unread.
    explicit StatisticsFile(std::string_view text);

    // Nothing when the file has neither a header nor a line that can be read.
    std::optional<StatisticsKind> kind() const { return _kind; }
    const std::vector<StatisticsLine>& lines() const { return _lines; }
    const std::vector<UnreadLines>& unread() const { return _unread; }

private:
    void read_line(std::string_view text, std::size_t number);
    void keep_unread(std::size_t number, const char* reason);

    std::optional<StatisticsKind> _kind;
    std::vector<StatisticsLine> _lines;
    std::vector<UnreadLines> _unread;
};
