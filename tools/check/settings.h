// The settings as the daemon reads them, each with its line in the file.
#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "config/config_file.h"
#include "config/keys.h"

class Findings;

class Settings {
public:
    // Loads the file with the daemon's own parser, and reports what the daemon accepts without a
    // message: ignored lines, misspelt keys, truncated values. Throws std::invalid_argument if the
    // file cannot be opened.
    Settings(const std::string& path, Findings& findings);

    // The value that the daemon uses.
    int number(const keys::Key& key) const { return key.number_in(_file); }

    // The same for a text, but without the carriage return at its end, which is reported
    // separately.
    std::string text(const keys::Key& key) const;

    // The line with the value that the daemon uses; 0 if the file does not contain the key.
    std::size_t line(const keys::Key& key) const;
    bool is_set(const keys::Key& key) const { return line(key) != 0; }

private:
    ConfigFile _file;
    std::map<std::string, std::size_t> _lines;
};
