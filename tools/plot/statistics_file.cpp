#include "tools/plot/statistics_file.h"

StatisticsFile::StatisticsFile(std::string_view text)
{
    for (std::size_t number = 1; !text.empty(); number++) {
        const std::size_t line_feed = text.find('\n');
        if (line_feed == std::string_view::npos) {
            keep_unread(number, "not complete yet");
            return;
        }
        read_line(text.substr(0, line_feed), number);
        text.remove_prefix(line_feed + 1);
    }
}

void StatisticsFile::read_line(std::string_view text, std::size_t number)
{
    if (const std::optional<StatisticsKind> header_kind = kind_of_header(text)) {
        if (!_kind)
            _kind = header_kind;
        return;
    }
    const char* reason = nullptr;
    std::optional<StatisticsLine> line = StatisticsLine::parse(text, reason);
    if (!line) {
        keep_unread(number, reason);
        return;
    }
    if (!_kind)
        _kind = line->kind;
    if (line->kind == *_kind)
        _lines.push_back(*std::move(line));
    else
        keep_unread(number, "belongs in the other kind of file");
}

void StatisticsFile::keep_unread(std::size_t number, const char* reason)
{
    if (!_unread.empty() && _unread.back().last + 1 == number && _unread.back().reason == reason)
        _unread.back().last = number;
    else
        _unread.push_back({number, number, reason});
}
