// One post to elastic_url, as the daemon makes it: the two service reports in one batch.
#pragma once

#include <string>

class Findings;
class Settings;

// Posts the reports with this serial number and finds what came of it. Waits up to 30 seconds for
// the answer; the daemon would wait longer.
void post_once(const Settings& settings, const std::string& serial_number, Findings& findings);
