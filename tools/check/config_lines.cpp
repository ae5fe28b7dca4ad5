#include "tools/check/config_lines.h"

#include <algorithm>
#include <fstream>
#include <numeric>
#include <vector>

#include "config/keys.h"
#include "tools/check/findings.h"

namespace {

constexpr const char* BYTE_ORDER_MARK = "\xEF\xBB\xBF";
constexpr const char* NOTHING = " \t\r";

const keys::Key* find_key(const std::string& name)
{
    const auto* found = std::find_if(keys::ALL.begin(), keys::ALL.end(),
                                     [&](const keys::Key& key) { return name == key.name; });
    return found == keys::ALL.end() ? nullptr : found;
}

std::string in_lower_case(std::string text)
{
    for (char& c : text)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return text;
}

// How many characters must be added, removed or replaced to change one text into the other.
std::size_t edit_distance(const std::string& a, const std::string& b)
{
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (const char c : a) {
        std::size_t diagonal = row[0]++;
        for (std::size_t j = 0; j < b.size(); j++) {
            const std::size_t replaced = diagonal + (c == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

// The most similar known key; null if none is similar.
const keys::Key* nearest_key(const std::string& name)
{
    const keys::Key* nearest = nullptr;
    std::size_t least = name.size() / 3 + 1;  // more differences are not a typing error
    for (const keys::Key& key : keys::ALL) {
        const std::size_t distance = edit_distance(in_lower_case(name), key.name);
        if (distance <= least && (nearest == nullptr || distance < least)) {
            nearest = &key;
            least = distance;
        }
    }
    return nearest;
}

}  // namespace

ConfigLines::ConfigLines(const std::string& path, Findings& findings)
    : _path(path), _findings(findings)
{
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        _number++;
        look_at(line);
    }
    find_carriage_returns();
}

void ConfigLines::look_at(std::string line)
{
    if (_number == 1 && line.starts_with(BYTE_ORDER_MARK)) {
        _findings.error(
            1,
            "the file starts with a byte order mark, so the daemon does not recognise the key in ",
            R"(the first line; remove it: sed -i '1s/^\xEF\xBB\xBF//' )", _path);
        return;
    }
    if (line.ends_with('\r') && _first_return == 0)
        _first_return = _number;

    const std::size_t comment = line.find('#');
    const bool cut = comment != std::string::npos && comment > 0 &&
                     line.find_last_of(" \t", comment - 1) != comment - 1;
    _parser.removeComment(line);
    if (line.find_first_not_of(NOTHING) == std::string::npos)
        return;
    const std::size_t separator = line.find('=');
    std::string key, value;
    _parser.extractKey(key, separator, line);
    if (separator != std::string::npos && separator != 0)
        _parser.extractValue(value, separator, line);
    const keys::Key* known = find_key(key);
    if (known == nullptr && !value.empty())
        find_unknown(key);
    else if (known == nullptr)
        _findings.warning(_number, "the line is not \"key = value\" and is ignored; delete it, or ",
                          "put a '#' in front");
    else if (value.empty())
        _findings.error(_number, "no \"= VALUE\" follows ", key,
                        ", so the line is ignored and the default is used; write \"", key,
                        " = VALUE\", or delete the line");
    else
        look_at_value(*known, value, cut);
}

void ConfigLines::look_at_value(const keys::Key& key, const std::string& value, bool cut)
{
    std::size_t& line = _keys[key.name];
    if (line != 0)
        _findings.warning(_number, key.name, " is also set in line ", line,
                          ", and the daemon uses this later line; delete one of them");
    line = _number;
    if (cut)
        _findings.warning(_number, "a '#' starts a comment, so the value of ", key.name,
                          " ends before it; in a URL write %23, otherwise avoid the character");
    if (key.is_number())
        return;
    _text_has_return = _text_has_return || value.ends_with('\r');
    if (value.starts_with('"') || value.starts_with('\''))
        _findings.error(_number, "the quotes become part of the value of ", key.name,
                        "; delete them, even if the value contains spaces");
}

void ConfigLines::find_unknown(const std::string& key)
{
    const keys::Key* nearest = nearest_key(key);
    if (nearest == nullptr)
        _findings.warning(_number, '"', key,
                          "\" is not a key of the daemon, and the line is ignored; ",
                          "voxstat-check --help lists the keys");
    else if (in_lower_case(key) == nearest->name)
        _findings.error(_number, '"', key,
                        "\" is ignored, because keys are case-sensitive; write \"", nearest->name,
                        '"');
    else
        _findings.error(_number, '"', key,
                        "\" is not a key of the daemon, and the line is ignored; ",
                        "did you mean \"", nearest->name, "\"?");
}

void ConfigLines::find_carriage_returns()
{
    const char* remedy = "; remove them: sed -i 's/\\r$//' ";
    if (_text_has_return)
        _findings.error(_first_return, "lines end in a carriage return, which becomes part of a ",
                        "name, a path or the URL", remedy, _path);
    else if (_first_return != 0)
        _findings.warning(_first_return, "lines end in a carriage return, which becomes part of ",
                          "every text value", remedy, _path);
}
