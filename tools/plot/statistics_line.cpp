#include "tools/plot/statistics_line.h"

#include <algorithm>
#include <cmath>

#include "tools/common/numbers.h"
#include "tools/plot/time_text.h"

namespace {

constexpr double DAY_S = 86400;
constexpr std::string_view HEADER_START = "       Date ";

// The columns with fixed positions; a space follows each.
struct Column {
    std::size_t begin, end;
};
constexpr Column TIME = {0, STAMP_SIZE};
constexpr Column GCID = {31, 40};
constexpr Column TID = {41, 52};
constexpr Column TYPE = {53, 61};
constexpr Column FAR_END = {62, 77};
constexpr Column COLUMNS[] = {TIME, GCID, TID, TYPE, FAR_END};

std::string_view text_of(std::string_view line, Column column)
{
    std::string_view text = line.substr(column.begin, column.end - column.begin);
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    return text;
}

// Removes the next word from the text and returns it; empty at the end.
std::string_view next_word(std::string_view& text)
{
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(word.size());
    return word;
}

bool read_numbers(std::string_view& text, std::initializer_list<double*> numbers)
{
    return std::all_of(numbers.begin(), numbers.end(),
                       [&text](double* number) { return to_number(next_word(text), *number); });
}

// The latest time, not after the limit, at which clocks in the line's time zone showed this.
double latest_with_clock(double clock_s, double limit_s, const StatisticsLine& line)
{
    const double place = limit_s + static_cast<double>(line.zone_offset_s);
    return limit_s - (place - clock_s - DAY_S * std::floor((place - clock_s) / DAY_S));
}

// Reads the times of day of the first and the last packet. If they are missing, or there was only
// one packet, both are equal; then the time of the report is used.
bool read_packet_times(std::string_view& text, StatisticsLine& line)
{
    constexpr double CLOCKS_DIFFER_S = 3600;  // at most, between the packets and the report
    const std::optional<double> first = read_clock(next_word(text));
    const std::optional<double> last = read_clock(next_word(text));
    if (!first || !last)
        return false;
    if (*first == *last)
        return true;
    const double limit_s = std::floor(line.time_s) + CLOCKS_DIFFER_S;
    line.end_s = latest_with_clock(*last, limit_s, line);
    line.begin_s = latest_with_clock(*first, line.end_s, line);
    return true;
}

// Reads the columns after the five fixed ones. The position of the loss, the only number with a
// point, shows the kind of line: in a summary, the span precedes it.
bool read_figures(std::string_view text, StatisticsLine& line)
{
    std::string_view ahead = text;
    int numbers_before_loss = 0;
    while (numbers_before_loss < 5 && next_word(ahead).find('.') == std::string_view::npos)
        numbers_before_loss++;

    Figures& to = line.figures;
    double port = 0;
    double span = 0;
    double packets = 0;
    double lost = 0;
    switch (numbers_before_loss) {
    case 3:
        line.kind = StatisticsKind::SESSION;
        return read_numbers(text,
                            {&port, &packets, &lost, &to.loss_percent, &to.jitter, &to.round_trip});
    case 4:
        line.kind = StatisticsKind::SUMMARY;
        return read_numbers(text, {&port, &span, &packets, &lost, &to.loss_percent, &to.jitter,
                                   &to.jitter_max, &to.round_trip, &to.round_trip_max}) &&
               read_packet_times(text, line);
    default:
        return false;
    }
}

}  // namespace

bool StatisticsLine::is_dated() const
{
    return time_s >= DAY_S;
}

std::optional<StatisticsLine> StatisticsLine::parse(std::string_view text, const char*& reason)
{
    StatisticsLine line;
    if (text.empty()) {
        reason = "empty";
        return std::nullopt;
    }
    const std::optional<Stamp> stamp = read_stamp(text);
    if (!stamp) {
        reason = "does not start with a time stamp";
        return std::nullopt;
    }
    line.time_s = line.begin_s = line.end_s = stamp->time_s;
    line.zone_offset_s = stamp->zone_offset_s;
    if (text.size() <= FAR_END.end)
        reason = "too short";
    else if (std::any_of(std::begin(COLUMNS), std::end(COLUMNS),
                         [text](Column column) { return text[column.end] != ' '; }))
        reason = "columns are misplaced";
    else if (!read_figures(text.substr(FAR_END.end), line))
        reason = "numbers are missing or invalid";
    else {
        line.call = text.substr(GCID.begin, TID.end - GCID.begin);
        line.gcid = text_of(text, GCID);
        line.tid = text_of(text, TID);
        line.far_end = text_of(text, FAR_END);
        line.near_end =
            (text_of(text, TYPE) == "near_end") == (line.kind == StatisticsKind::SESSION);
        return line;
    }
    return std::nullopt;
}

std::optional<StatisticsKind> kind_of_header(std::string_view line)
{
    if (!line.starts_with(HEADER_START))
        return std::nullopt;
    return line.find(" Span ") == std::string_view::npos ? StatisticsKind::SESSION
                                                         : StatisticsKind::SUMMARY;
}
