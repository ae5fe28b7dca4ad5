// Checks elastic_url without using the network. The path of the configuration shows who can read
// credentials in the URL.
#pragma once

#include <string>

class DaemonUser;
class Findings;
class Settings;

void check_url(const Settings& settings, const std::string& config_path, const DaemonUser& user,
               Findings& findings);
