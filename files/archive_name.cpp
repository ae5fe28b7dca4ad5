#include "files/archive_name.h"

#include <array>

#include "log/utils.h"

namespace {

constexpr const char* STAMP_FORMAT = "_%F_%H-%M-%S";
constexpr std::string_view STAMP_FORM = "_0000-00-00_00-00-00";  // 0: a digit
constexpr std::string_view COUNTER_FORM = "_000";                // or more digits

}  // namespace

std::string archive_stamp(time_t now)
{
    const tm fields = Utils::local_time(now);
    std::array<char, 64> text{};
    return {text.data(), strftime(text.data(), text.size(), STAMP_FORMAT, &fields)};
}

std::string archive_counter(unsigned counter)
{
    if (counter <= 1)
        return "";
    std::string digits = std::to_string(counter);
    if (digits.size() + 1 < COUNTER_FORM.size())
        digits.insert(0, COUNTER_FORM.size() - 1 - digits.size(), '0');
    return '_' + digits;
}

bool is_archive_name(std::string_view file, std::string_view name, std::string_view extension)
{
    if (!file.starts_with(name) || !file.ends_with(extension) ||
        file.size() < name.size() + STAMP_FORM.size() + extension.size())
        return false;
    std::string form(file.substr(name.size(), file.size() - name.size() - extension.size()));
    for (char& c : form)
        if (c >= '0' && c <= '9')
            c = '0';
    if (!form.starts_with(STAMP_FORM))
        return false;
    form.erase(0, STAMP_FORM.size());
    return form.empty() ||
           (form.starts_with(COUNTER_FORM) && form.find_first_not_of('0', 1) == std::string::npos);
}
