#include "tools/plot/time_form.h"

#include <algorithm>
#include <cctype>

namespace {

constexpr std::string_view FORM = "0000-Aaa-00 00:00:00.000 +0000";
static_assert(FORM.size() == TIME_SIZE);

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

}  // namespace

bool begins_with_time(std::string_view text)
{
    return text.size() >= FORM.size() &&
           std::equal(FORM.begin(), FORM.end(), text.begin(),
                      [](char form, char c) { return has_form(c, form); });
}
