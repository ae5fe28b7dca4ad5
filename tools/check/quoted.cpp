#include "tools/check/quoted.h"

#include <clocale>
#include <cwchar>

std::string quoted(std::string_view text)
{
    // Every system has this locale, whatever the user's is.
    [[maybe_unused]] static const char* const utf8 = std::setlocale(LC_CTYPE, "C.UTF-8");
    std::string result = "\"";
    while (!text.empty()) {
        std::mbstate_t state{};
        const std::size_t length = std::mbrtowc(nullptr, text.data(), text.size(), &state);
        const char first = text.front();
        const bool is_valid = length != 0 && length <= text.size();
        if (first == '"' || first == '\\')
            result += '\\';
        if (!is_valid || static_cast<unsigned char>(first) < ' ')
            result += '?';
        else
            result += text.substr(0, length);
        text.remove_prefix(is_valid ? length : 1);
    }
    return result + '"';
}
