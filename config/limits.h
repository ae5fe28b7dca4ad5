// Sizes, numbers and directories of the files that no key changes. The writers of the files use
// them, and voxstat-check calculates with them.
#pragma once

namespace limits {

inline constexpr const char* TEXT_EXTENSION = ".txt";
inline constexpr const char* DUMP_EXTENSION = ".pcap";

// Size in bytes at which a file becomes an archive, and number of archives that are kept.
inline constexpr unsigned STAT_FILE_SIZE = 20971520;
inline constexpr unsigned STAT_ARCHIVES = 4;
inline constexpr unsigned SUMMARY_FILE_SIZE = 5242880;
inline constexpr unsigned SUMMARY_ARCHIVES = 2;

inline constexpr const char* LOG_DIRECTORY = "/var/log/current";
inline constexpr const char* LOG_EXTENSION = ".log";
inline constexpr unsigned LOG_FILE_SIZE = 20971520;
inline constexpr unsigned LOG_ARCHIVES = 1;

}  // namespace limits
