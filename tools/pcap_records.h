// Finds numbered voice records in pcap dumps, without help of a pcap library.
#pragma once

#include <string_view>

#include "tools/account.h"

// Accounts for the records of one dump. Throws std::runtime_error when it does not begin as one;
// an empty file is a dump without records.
void account_pcap_records(std::string_view bytes, Account& account);
