#include "files/archive_name.h"

#include <array>
#include <cstdio>

#include "log/utils.h"

namespace {

constexpr const char* STAMP_FORMAT = "_%F_%H-%M-%S";
constexpr const char* COUNTER_FORMAT = "_%03u";
constexpr std::string_view STAMP_FORM = "_0000-00-00_00-00-00";  // 0: a digit
constexpr std::string_view COUNTER_FORM = "_000";                // or more digits

}  // namespace

std::string archive_name(const std::string& name, const std::string& extension, time_t now,
                         unsigned number)
{
    const tm fields = Utils::local_time(now);
    std::array<char, 64> text{};
    (void)strftime(text.data(), text.size(), STAMP_FORMAT, &fields);
    std::string stamp = text.data();
    if (number > 1) {
        (void)std::snprintf(text.data(), text.size(), COUNTER_FORMAT, number);
        stamp += text.data();
    }
    return name + stamp + extension;
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
