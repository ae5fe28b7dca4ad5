#include "tools/plot/statistics_file.h"

#include <utility>

StatisticsFile::StatisticsFile(InputFile& input, Tell tell_unread)
    : _input(input), _tell_unread(std::move(tell_unread))
{
}

bool StatisticsFile::next(StatisticsLine& line)
{
    std::string_view text;
    while (_input.next(text)) {
        _number++;
        if (!_input.is_cut_off() && kind_of_header(text)) {
            if (!_kind)
                _kind = kind_of_header(text);
            continue;
        }
        const char* const reason = _input.is_cut_off() ? "incomplete" : read_line(text, line);
        if (reason == nullptr)
            return true;
        keep_unread(reason);
    }
    tell_unread();
    return false;
}

// Returns the reason if the line cannot be read, otherwise null.
const char* StatisticsFile::read_line(std::string_view text, StatisticsLine& line)
{
    const char* reason = nullptr;
    const std::optional<StatisticsLine> read = StatisticsLine::parse(text, reason);
    if (!read)
        return reason;
    if (!_kind)
        _kind = read->kind;
    if (read->kind != *_kind)
        return "belongs to the other kind of file";
    line = *read;
    return nullptr;
}

void StatisticsFile::keep_unread(const char* reason)
{
    if (_unread && _unread->last + 1 == _number && _unread->reason == reason) {
        _unread->last = _number;
        return;
    }
    tell_unread();
    _unread = {_number, _number, reason};
}

void StatisticsFile::tell_unread()
{
    if (_unread)
        _tell_unread(*_unread);
    _unread.reset();
}
