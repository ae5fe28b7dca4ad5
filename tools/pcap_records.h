// Finds numbered voice records in pcap dumps, without help of a pcap library.
#pragma once

#include <string_view>

#include "tools/account.h"

// Accounts for the records of one dump; an empty file is one without records. False when the bytes
// do not begin as a dump.
bool account_pcap_records(std::string_view bytes, Account& account);
