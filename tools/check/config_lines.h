// Checks the lines of a configuration file as the daemon parses them.
#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "config/key_value_parser.h"
#include "config/keys.h"

class Findings;

class ConfigLines {
public:
    // Reads the file. Reports lines that are ignored, unknown and duplicate keys, values that a '#'
    // truncates, and byte order marks and carriage returns.
    ConfigLines(const std::string& path, Findings& findings);

    // The known keys in the file, each with the line that the daemon uses: the last one.
    const std::map<std::string, std::size_t>& keys() const { return _keys; }

private:
    void look_at(std::string line);
    void look_at_value(const keys::Key& key, const std::string& value, bool cut);
    void find_unknown(const std::string& key);
    void find_carriage_returns();

    std::string _path;
    Findings& _findings;
    KeyValueParser _parser;  // the daemon's own
    std::map<std::string, std::size_t> _keys;
    std::size_t _number = 0;        // of the current line
    std::size_t _first_return = 0;  // the first line that ends in a carriage return
    bool _text_has_return = false;  // part of a text value
};
