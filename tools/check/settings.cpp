#include "tools/check/settings.h"

#include "tools/check/config_lines.h"

Settings::Settings(const std::string& path, Findings& findings)
    : _file(path, '='), _lines(ConfigLines(path, findings).keys())
{
}

std::string Settings::text(const keys::Key& key) const
{
    std::string value = key.text_in(_file);
    if (value.ends_with('\r'))
        value.pop_back();
    return value;
}

std::size_t Settings::line(const keys::Key& key) const
{
    const auto entry = _lines.find(key.name);
    return entry == _lines.end() ? 0 : entry->second;
}
