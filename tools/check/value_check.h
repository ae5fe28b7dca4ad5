// Judges the numbers, names and paths of the settings: what is no number, what lies out of range,
// and what each really does in the daemon.
#pragma once

class Findings;
class Settings;

void check_values(const Settings& settings, Findings& findings);
