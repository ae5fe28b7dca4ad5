// Checks the numbers, names and paths of the settings: texts in place of numbers, numbers out of
// range, and what they do in the daemon.
#pragma once

class Findings;
class Settings;

void check_values(const Settings& settings, Findings& findings);
