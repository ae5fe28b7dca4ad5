// The lines of a configuration file, and what the daemon makes of each.
#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "config/key_value_parser.h"
#include "config/keys.h"

class Findings;

class ConfigLines {
public:
    // Reads the file, and finds lines that are ignored, keys that are unknown or given twice,
    // values that a '#' cuts, and what a foreign editor leaves behind.
    ConfigLines(const std::string& path, Findings& findings);

    // The known keys of the file, each with the line that counts, which is its last.
    const std::map<std::string, std::size_t>& keys() const { return _keys; }

private:
    void look_at(std::string line);
    void look_at_value(const keys::Key& key, const std::string& value, bool cut);
    void find_unknown(const std::string& key);
    void find_carriage_returns();

    std::string _path;
    Findings& _findings;
    KeyValueParser _parser;  // the daemon's own takes the lines apart
    std::map<std::string, std::size_t> _keys;
    std::size_t _number = 0;        // of the line that is looked at
    std::size_t _first_return = 0;  // the first line that ends in a carriage return
    bool _text_has_return = false;  // one is part of a text
};
