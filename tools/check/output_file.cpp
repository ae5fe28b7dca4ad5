#include "tools/check/output_file.h"

#include <filesystem>
#include <system_error>

#include "config/limits.h"
#include "files/archive_name.h"
#include "tools/check/settings.h"

namespace fs = std::filesystem;

namespace {

std::uint64_t size_of(const std::string& path)
{
    std::error_code error;
    const std::uintmax_t size = fs::file_size(path, error);
    return error ? 0 : size;
}

}  // namespace

std::vector<std::string> OutputFile::archives() const
{
    std::vector<std::string> paths;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory, error)) {
        if (entry.symlink_status(error).type() == fs::file_type::regular &&
            is_archive_name(entry.path().filename().string(), name, extension))
            paths.push_back(entry.path());
    }
    return paths;
}

std::uint64_t OutputFile::growth() const
{
    const std::uint64_t bound = (1 + std::uint64_t{max_archives}) * max_size;
    std::uint64_t taken = size_of(path());
    for (const std::string& archive : archives())
        taken += size_of(archive);
    return bound > taken ? bound - taken : 0;
}

std::vector<OutputFile> output_files(const Settings& settings)
{
    std::string directory = settings.text(keys::QOS_STAT_DIR);
    if (!directory.ends_with('/'))
        directory += '/';
    const std::size_t line = settings.line(keys::QOS_STAT_DIR);
    const auto number = [&](const keys::Key& key) {
        return static_cast<unsigned>(settings.number(key));
    };
    std::vector<OutputFile> files = {
        {directory, settings.text(keys::QOS_FILE_NAME), limits::TEXT_EXTENSION,
         limits::STAT_FILE_SIZE, limits::STAT_ARCHIVES, line},
        {directory, settings.text(keys::QOS_FILE_NAME_EOS), limits::TEXT_EXTENSION,
         limits::SUMMARY_FILE_SIZE, limits::SUMMARY_ARCHIVES, line}};
    if (settings.number(keys::RTP_LOGGING) != 0)
        files.push_back({directory, settings.text(keys::RTP_DUMP_FILE_NAME), limits::DUMP_EXTENSION,
                         number(keys::MAX_FILE_SIZE_RTP), number(keys::MAX_ARCHIVED_FILES_RTP),
                         line});
    if (settings.is_set(keys::LOG_FILE))
        files.push_back({std::string(limits::LOG_DIRECTORY) + '/', settings.text(keys::LOG_FILE),
                         limits::LOG_EXTENSION, limits::LOG_FILE_SIZE, limits::LOG_ARCHIVES,
                         settings.line(keys::LOG_FILE)});
    return files;
}
