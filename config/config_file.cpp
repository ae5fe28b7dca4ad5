#include "config/config_file.h"

#include <fstream>
#include <stdexcept>
#include <utility>

ConfigFile::ConfigFile(std::string file_name, char separator_character)
    : KeyValueParser(separator_character), fileName(std::move(file_name))
{
    ExtractKeys();
}

void ConfigFile::ExtractKeys()
{
    std::ifstream file(fileName);
    if (!file)
        throw std::invalid_argument("Failed to open config file: " + fileName);

    std::string line;
    while (std::getline(file, line)) {
        removeComment(line);
        if (!onlyWhitespace(line))
            parseLine(line, 0);
    }
}
