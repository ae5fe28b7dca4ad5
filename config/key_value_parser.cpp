#include "config/key_value_parser.h"

#include <cstdlib>

#include "log/simple_logger.h"

namespace {

constexpr const char* BLANKS_AND_TABS = " \t";
constexpr const char* KEY_END = " \t=:";
constexpr const char* VALUE_END = " \t\n";

}  // namespace

void KeyValueParser::removeComment(std::string& line) const
{
    const std::size_t comment = line.find('#');
    if (comment != std::string::npos)
        line.erase(comment);
}

bool KeyValueParser::onlyWhitespace(const std::string& line) const
{
    return line.find_first_not_of(' ') == std::string::npos;
}

bool KeyValueParser::validLine(std::string& line) const
{
    line.erase(0, line.find_first_not_of(BLANKS_AND_TABS));
    const std::size_t equals = line.find('=');
    if (equals == 0 || equals == std::string::npos)
        return false;
    return line.find_first_not_of(' ', equals + 1) != std::string::npos;
}

void KeyValueParser::extractKey(std::string& key, const unsigned long& /*sepPos*/,
                                const std::string& line) const
{
    key.clear();
    const std::size_t start = line.find_first_not_of(BLANKS_AND_TABS);
    if (start != std::string::npos)
        key = line.substr(start, line.find_first_of(KEY_END, start) - start);
}

void KeyValueParser::extractValue(std::string& value, const unsigned long& sepPos,
                                  const std::string& line) const
{
    value.clear();
    const std::size_t first = line.find_first_not_of(BLANKS_AND_TABS, sepPos + 1);
    const std::size_t last = line.find_last_not_of(VALUE_END);
    if (first != std::string::npos && last != std::string::npos && last >= first)
        value = line.substr(first, last - first + 1);
}

void KeyValueParser::extractContents(const std::string& line)
{
    const std::size_t sepPos = line.find(separator);
    std::string value;
    if (sepPos != std::string::npos && sepPos != 0)
        extractValue(value, sepPos, line);
    if (value.empty()) {
        DBG->Log(DBG_INFO, {"KeyValueParser::parseLine ignoring invalid line: ", line});
        return;
    }
    std::string key;
    extractKey(key, sepPos, line);
    contents[key] = value;
}

void KeyValueParser::parseLine(const std::string& line, unsigned long /*line_number*/)
{
    extractContents(line);
}

bool KeyValueParser::keyExists(const std::string& key) const
{
    return contents.find(key) != contents.end();
}

int KeyValueParser::getIntValue(const std::string& key, int defaultValue) const
{
    const auto entry = contents.find(key);
    return entry == contents.end() ? defaultValue : std::atoi(entry->second.c_str());
}

double KeyValueParser::getFloatValue(const std::string& key, double defaultValue) const
{
    const auto entry = contents.find(key);
    return entry == contents.end() ? defaultValue : std::atof(entry->second.c_str());
}

std::string KeyValueParser::getStringValue(const std::string& key, std::string defaultValue) const
{
    const auto entry = contents.find(key);
    if (entry == contents.end())
        return defaultValue;
    return entry->second;
}
