#include "tools/report_lines.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>

#include "tools/load_marks.h"

namespace {

// Where the last column, the RTCP name, begins in a whole line.
constexpr std::size_t SESSION_NAME = 133;
constexpr std::size_t EOS_NAME = 180;
// The SSRC ends, its column 10 wide, before a blank, 5 columns of serial number and a blank.
constexpr std::size_t SSRC_BEFORE_NAME = 17;
constexpr std::size_t SSRC_WIDTH = 10;

constexpr std::string_view TIME_FORM = "0000-Aaa-00 00:00:00.000 +0000";
constexpr std::string_view HEADER_START = "       Date ";
constexpr std::string_view JSON_START = R"({"message": ")";

bool has_form(char c, char form)
{
    const auto byte = static_cast<unsigned char>(c);
    switch (form) {
    case '0':
        return std::isdigit(byte) != 0;
    case 'A':
        return std::isupper(byte) != 0;
    case 'a':
        return std::islower(byte) != 0;
    case '+':
        return c == '+' || c == '-';
    default:
        return c == form;
    }
}

bool begins_with_time(std::string_view text)
{
    return text.size() >= TIME_FORM.size() &&
           std::equal(TIME_FORM.begin(), TIME_FORM.end(), text.begin(),
                      [](char form, char c) { return has_form(c, form); });
}

// Where the last time stamp in the line begins.
std::size_t find_last_time(std::string_view line)
{
    for (std::size_t at = line.size(); at-- > 0;)
        if (begins_with_time(line.substr(at)))
            return at;
    return std::string_view::npos;
}

std::optional<std::uint32_t> to_number(std::string_view digits)
{
    std::uint32_t number = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, number);
    if (digits.empty() || error != std::errc() || stop != end)
        return std::nullopt;
    return number;
}

std::string_view without_json(std::string_view line)
{
    if (!line.starts_with(JSON_START))
        return line;
    line.remove_prefix(JSON_START.size());
    if (line.ends_with(','))
        line.remove_suffix(1);
    if (line.ends_with("\"}"))
        line.remove_suffix(2);
    return line;
}

// The line begins with a time stamp and is not known to be torn so far.
void account_line(std::string_view line, Account& account)
{
    const std::size_t name_at = line.rfind(' ') + 1;
    const std::string_view name = line.substr(name_at);
    const std::optional<std::uint32_t> number = to_number(name);
    if (!number || name.size() < LOAD_NAME_DIGITS) {
        if (line.size() < SESSION_NAME)
            account.torn++;
        else
            account.other++;
        return;
    }
    if (name_at != SESSION_NAME && name_at != EOS_NAME) {
        account.torn++;
        return;
    }
    std::string_view ssrc = line.substr(name_at - SSRC_BEFORE_NAME, SSRC_WIDTH);
    ssrc.remove_prefix(std::min(ssrc.find_first_not_of(' '), ssrc.size()));
    if (to_number(ssrc) == number)
        account.ledger.add(*number);
    else
        account.torn++;
}

}  // namespace

void account_report_lines(std::string_view text, Account& account)
{
    while (!text.empty()) {
        const std::size_t line_feed = text.find('\n');
        if (line_feed == std::string_view::npos) {
            account.torn++;
            return;
        }
        const std::string_view line = without_json(text.substr(0, line_feed));
        text.remove_prefix(line_feed + 1);
        if (line.starts_with(HEADER_START))
            continue;
        // A daemon that was started anew appends to the torn line of the one that was killed.
        const std::size_t begin = find_last_time(line);
        if (begin != 0)
            account.torn++;
        if (begin != std::string_view::npos)
            account_line(line.substr(begin), account);
    }
}
