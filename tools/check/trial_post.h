// One post to elastic_url, like those of the service: with its environment, and with a batch of
// service reports as large as the batches of a busy unit.
#pragma once

#include <string>

class Findings;
class Settings;
struct Service;

// Posts the reports with this serial number and adds the result to the findings. Waits up to 30
// seconds for the answer; the daemon waits indefinitely.
void post_once(const Settings& settings, const std::string& serial_number, const Service& service,
               Findings& findings);
