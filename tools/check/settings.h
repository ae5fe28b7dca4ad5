// The settings as the daemon reads them, each with the line of the file that it comes from.
#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "config/config_file.h"
#include "config/keys.h"

class Findings;

class Settings {
public:
    // Loads the file with the daemon's own reader, and looks at its lines for what the daemon
    // passes over without a word: lines that it ignores, misspelt keys, values that are cut.
    // Throws std::invalid_argument when the file cannot be opened.
    Settings(const std::string& path, Findings& findings);

    // The value that the daemon works with.
    int number(const keys::Key& key) const { return key.number_in(_file); }

    // The same for a text, but without the carriage return at its end, which is found once.
    std::string text(const keys::Key& key) const;

    // The line that counts for the key; 0 when the file does not have it.
    std::size_t line(const keys::Key& key) const;
    bool is_set(const keys::Key& key) const { return line(key) != 0; }

private:
    ConfigFile _file;
    std::map<std::string, std::size_t> _lines;
};
