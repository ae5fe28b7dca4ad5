#include "tools/plot/statistics_line.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <ctime>

#include "tools/plot/time_form.h"

namespace {

constexpr std::string_view HEADER_START = "       Date ";

// Where the columns of fixed place begin and end; a blank follows each.
struct Column {
    std::size_t begin, end;
};
constexpr Column TIME = {0, TIME_SIZE};
constexpr Column GCID = {31, 40};
constexpr Column TID = {41, 52};
constexpr Column TYPE = {53, 61};
constexpr Column FAR_END = {62, 77};
constexpr Column COLUMNS[] = {TIME, GCID, TID, TYPE, FAR_END};

constexpr std::array<std::string_view, 12> MONTHS = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

std::string_view text_of(std::string_view line, Column column)
{
    std::string_view text = line.substr(column.begin, column.end - column.begin);
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    return text;
}

template <typename Number>
bool to_number(std::string_view text, Number& number)
{
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end;
}

// The text begins with a time stamp.
bool read_time(std::string_view text, StatisticsLine& line)
{
    const auto digits = [text](std::size_t at, std::size_t count) {
        int number = 0;
        to_number(text.substr(at, count), number);
        return number;
    };
    const auto* const month = std::find(MONTHS.begin(), MONTHS.end(), text.substr(5, 3));
    std::tm calendar{};
    calendar.tm_year = digits(0, 4) - 1900;
    calendar.tm_mon = static_cast<int>(month - MONTHS.begin());
    calendar.tm_mday = digits(9, 2);
    calendar.tm_hour = digits(12, 2);
    calendar.tm_min = digits(15, 2);
    calendar.tm_sec = digits(18, 2);

    const int zone_minutes = digits(26, 2) * 60 + digits(28, 2);
    line.zone_offset_s = (text[25] == '-' ? -60L : 60L) * zone_minutes;
    line.time_s =
        static_cast<double>(timegm(&calendar) - line.zone_offset_s) + digits(21, 3) / 1000.0;
    return month != MONTHS.end();
}

// Takes the next word from the text; an empty one at the end.
std::string_view next_word(std::string_view& text)
{
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(word.size());
    return word;
}

bool read_numbers(std::string_view& text, std::initializer_list<double*> numbers)
{
    return std::all_of(numbers.begin(), numbers.end(), [&text](double* number) {
        return to_number(next_word(text), *number) && std::isfinite(*number);
    });
}

// Reads what follows the five columns of fixed place. The loss, the only number with a point,
// tells the kinds of lines apart: a summary has its span before it.
bool read_figures(std::string_view text, StatisticsLine& line)
{
    std::string_view ahead = text;
    int numbers_before_loss = 0;
    while (numbers_before_loss < 5 && next_word(ahead).find('.') == std::string_view::npos)
        numbers_before_loss++;

    double port = 0;
    double packets = 0;
    double lost = 0;
    switch (numbers_before_loss) {
    case 3:
        line.kind = StatisticsKind::SESSION;
        return read_numbers(
            text, {&port, &packets, &lost, &line.loss_percent, &line.jitter, &line.round_trip});
    case 4:
        line.kind = StatisticsKind::SUMMARY;
        return read_numbers(text,
                            {&port, &line.span_s, &packets, &lost, &line.loss_percent, &line.jitter,
                             &line.jitter_max, &line.round_trip, &line.round_trip_max});
    default:
        return false;
    }
}

}  // namespace

std::optional<StatisticsLine> StatisticsLine::parse(std::string_view text, const char*& reason)
{
    StatisticsLine line;
    if (text.empty()) {
        reason = "empty";
    } else if (!begins_with_time(text) || !read_time(text, line)) {
        reason = "does not begin with a time stamp";
    } else if (text.size() <= FAR_END.end) {
        reason = "ends too early";
    } else if (std::any_of(std::begin(COLUMNS), std::end(COLUMNS),
                           [text](Column column) { return text[column.end] != ' '; })) {
        reason = "columns are not in their places";
    } else if (!read_figures(text.substr(FAR_END.end), line)) {
        reason = "numbers are missing or are none";
    } else {
        line.gcid = text_of(text, GCID);
        line.tid = text_of(text, TID);
        line.type = text_of(text, TYPE);
        line.far_end = text_of(text, FAR_END);
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
