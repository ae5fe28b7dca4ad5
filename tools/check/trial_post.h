// One post to elastic_url, as the service makes it: with its environment, and a batch as large as
// those of a busy unit, of service reports.
#pragma once

#include <string>

class Findings;
class Settings;
struct Service;

// Posts the reports with this serial number and finds what came of it. Waits up to 30 seconds for
// the answer; the daemon would wait longer.
void post_once(const Settings& settings, const std::string& serial_number, const Service& service,
               Findings& findings);
