// Finds numbered reports in statistics and session-summary files.
#pragma once

#include <string_view>

#include "tools/account.h"

// Accounts for the lines of one file. Lines of JSON ({"message": "..."}, with or without a comma),
// as they are posted, count as what they carry; column headers do not count.
void account_report_lines(std::string_view text, Account& account);
