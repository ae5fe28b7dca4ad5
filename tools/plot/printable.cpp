#include "tools/plot/printable.h"

#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cwchar>

namespace {

struct Character {
    std::size_t bytes;
    wchar_t code;
    int columns;  // 0 or less: not printable
};

// The first character of a text, which must not be empty.
Character first_of(std::string_view text)
{
    // Every system has this locale, whatever the user's is.
    [[maybe_unused]] static const char* const utf8 = std::setlocale(LC_CTYPE, "C.UTF-8");
    std::mbstate_t state{};
    wchar_t code = 0;
    const std::size_t bytes = std::mbrtowc(&code, text.data(), text.size(), &state);
    if (bytes == 0 || bytes > text.size())  // zero byte, or one of the two error values
        return {1, 0, -1};
    return {bytes, code, wcwidth(code)};
}

}  // namespace

std::string printable(std::string_view text)
{
    constexpr wchar_t LAST_ASCII = 0x7f;
    std::string shown;
    while (!text.empty()) {
        const Character first = first_of(text);
        char escape[16];
        if (first.columns > 0)
            shown += text.substr(0, first.bytes);
        else if (first.code > LAST_ASCII)
            shown.append(escape, static_cast<std::size_t>(
                                     std::snprintf(escape, sizeof escape, "\\u%04lx",
                                                   static_cast<unsigned long>(first.code))));
        else
            shown.append(escape, static_cast<std::size_t>(std::snprintf(
                                     escape, sizeof escape, "\\x%02x",
                                     unsigned{static_cast<unsigned char>(text.front())})));
        text.remove_prefix(first.bytes);
    }
    return shown;
}

std::size_t columns_of(std::string_view text)
{
    std::size_t columns = 0;
    while (!text.empty()) {
        const Character first = first_of(text);
        columns += static_cast<std::size_t>(first.columns);
        text.remove_prefix(first.bytes);
    }
    return columns;
}

std::string right_aligned(std::string_view text, std::size_t columns)
{
    const std::size_t taken = columns_of(text);
    return std::string(taken < columns ? columns - taken : 0, ' ').append(text);
}
