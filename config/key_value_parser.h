// The key/value text format of the configuration and serial-number files, and typed look-ups.
//
// A line is "key <separator> value"; '#' starts a comment. There is no quoting, no escape, no
// section and no continuation. Keys and values are byte strings, compared case-sensitively.
//
// All operations are public names and stay, even those that only tests and fuzz targets call.
//
// Filled and read on the main thread during start-up; never changed afterwards.
#pragma once

#include <map>
#include <string>

class KeyValueParser {
public:
    KeyValueParser() = default;

    // Erases from the first '#' to the end of the line.
    void removeComment(std::string& line) const;

    // True when the line is empty or contains only spaces. A tab does not count as a space.
    bool onlyWhitespace(const std::string& line) const;

    // Checks a line of a file read with '='. Erases leading spaces and tabs from the line; then
    // false when it starts with '=', contains none, or has only spaces after the first one. The
    // loader does not call it, because extractContents() skips invalid lines.
    bool validLine(std::string& line) const;

    // Sets key to the first word of the line, which a tab, a space, '=' or ':' ends. It may be
    // empty. The position of the separator is not used.
    void extractKey(std::string& key, const unsigned long& sepPos, const std::string& line) const;

    // Sets value to what follows the separator at sepPos, without tabs and spaces around it. Empty
    // when nothing follows.
    void extractValue(std::string& value, const unsigned long& sepPos,
                      const std::string& line) const;

    // Stores the pair of one line; a later line with the same key replaces the value.
    // A line without separator, key side or value is logged at DBG_INFO and skipped.
    void extractContents(const std::string& line);

    // Same as extractContents(). Ignores the line number.
    void parseLine(const std::string& line, unsigned long line_number);

    // True when a line contained this key.
    bool keyExists(const std::string& key) const;

    // The stored value, converted as atoi and atof do (text that is not a number gives 0), or
    // defaultValue when the key is absent. No range is checked.
    int getIntValue(const std::string& key, int defaultValue) const;
    double getFloatValue(const std::string& key, double defaultValue) const;
    std::string getStringValue(const std::string& key, std::string defaultValue) const;

protected:
    explicit KeyValueParser(char separator_character) : separator(separator_character) {}

    std::map<std::string, std::string> contents;
    char separator = '=';
};
