// A key/value file, read whole into memory when the object is built.
//
// Main thread only. Complete when the constructor returns; nothing is ever written back.
#pragma once

#include <string>

#include "config/key_value_parser.h"

class ConfigFile : public KeyValueParser {
public:
    // Loads the file. Throws std::invalid_argument "Failed to open config file: <name>" when it
    // cannot be opened; a read error later on counts as the end of the file.
    ConfigFile(std::string file_name, char separator_character);

    // Reads the file line by line into the map. Called by the constructor; throws as it does.
    void ExtractKeys();

private:
    std::string fileName;
};
