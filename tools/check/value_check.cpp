#include "tools/check/value_check.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "config/limits.h"
#include "tools/check/findings.h"
#include "tools/check/settings.h"

namespace {

constexpr int BLOCK_SIZE = 1024;  // bytes; the daemon writes whole blocks
constexpr std::string_view LEVELS[] = {"error", "warn", "info", "trace", "debug"};

std::string port_text(int port)
{
    const auto kept = static_cast<std::uint16_t>(port);
    return kept == 0 ? "any free port" : "port " + std::to_string(kept);
}

// The effect of a number below or above the range of a key; null if there is no such number.
struct Consequence {
    const keys::Key* key;
    const char *below, *above;
};

constexpr const char* OTHER_LEVEL = "counts as 1";
constexpr Consequence CONSEQUENCES[] = {
    {&keys::QOS_PORT, "makes the daemon listen on ",
     "makes the daemon listen on "},  // and the ports
    {&keys::MAX_BUF_TIMEOUT_RTP, "makes the daemon write the dump in many small pieces", nullptr},
    {&keys::MAX_LENGTH_PER_SEC_RTP, "makes the daemon drop every voice record without a message",
     nullptr},
    {&keys::MAX_FILE_SIZE_RTP, "makes the daemon rotate the dump after one or two blocks", nullptr},
    {&keys::MAX_ARCHIVED_FILES_RTP, "makes the daemon keep every archive until the disk is full",
     nullptr},
    {&keys::LOG_DEFAULT, OTHER_LEVEL, OTHER_LEVEL},
    {&keys::LOG_NETWORK, OTHER_LEVEL, OTHER_LEVEL},
    {&keys::LOG_HTTP, OTHER_LEVEL, OTHER_LEVEL},
};

constexpr const Consequence* consequence_of(std::string_view name)
{
    for (const Consequence& row : CONSEQUENCES)
        if (name == row.key->name)
            return &row;
    return nullptr;
}

consteval bool each_range_has_a_consequence()
{
    return std::all_of(keys::ALL.begin(), keys::ALL.end(), [](const keys::Key& key) {
        const Consequence* const row = consequence_of(key.name);
        return !key.is_number() || key.kind == keys::Kind::SWITCH ||
               (row != nullptr && row->below != nullptr &&
                (key.max == INT_MAX || row->above != nullptr));
    });
}
static_assert(each_range_has_a_consequence(), "a new key with a range takes a row above");

// The effect of a number out of range; empty if it is in the range.
std::string consequence(const keys::Key& key, int value)
{
    if ((value >= key.min && value <= key.max) || key.kind == keys::Kind::SWITCH)
        return "";
    if (std::string_view(key.name) == keys::MAX_FILE_SIZE_RTP.name && value < 0)
        return "lets the dump grow to " + std::to_string(static_cast<unsigned>(value)) +
               " bytes or without limit, so it never rotates";
    const Consequence& row = *consequence_of(key.name);
    const std::string text = value < key.min ? row.below : row.above;
    return std::string_view(key.name) == keys::QOS_PORT.name
               ? text + port_text(value) + " and " + port_text(value + 1)
               : text;
}

// How the daemon reads the text of a number, if it differs from the text; otherwise empty.
std::string misreading(const std::string& text, int value)
{
    char* end = nullptr;
    const long long number = std::strtoll(text.c_str(), &end, 10);
    if (end == text.c_str())
        return "is not a number and counts as 0";
    if (*end != '\0' || number != value)
        return "is read as " + std::to_string(value);
    return "";
}

// The number of a level's name; otherwise the allowed numbers.
std::string number_to_write(const keys::Key& key, const std::string& text)
{
    for (int level = 0; level <= key.max && key.kind == keys::Kind::LEVEL; level++)
        if (text.starts_with(LEVELS[level]))
            return std::to_string(level);
    return "a number, " + key.range() + " (" + key.unit + ')';
}

void check_number(const keys::Key& key, const Settings& settings, Findings& findings)
{
    const std::string text = settings.text(key);
    const int value = settings.number(key);
    const std::string read = misreading(text, value);
    const std::string effect = consequence(key, value);
    if (!read.empty() || !effect.empty())
        findings.error(settings.line(key), key.name, " = ", text, ' ', read,
                       read.empty() || effect.empty() ? "" : ", which ", effect, "; write ",
                       number_to_write(key, text));
}

void check_name(const keys::Key& key, const char* extension, const Settings& settings,
                Findings& findings)
{
    const std::string name = settings.text(key);
    if (name.find('/') != std::string::npos)
        findings.error(settings.line(key), key.name, " = ", name,
                       " contains a '/': the daemon does ",
                       "not create a directory for it, and never deletes its archives; write only ",
                       "a name: the directory is ",
                       &key == &keys::LOG_FILE ? limits::LOG_DIRECTORY : "qos_stat_dir");
    else if (name.ends_with(extension))
        findings.warning(settings.line(key), "the file will be named ", name, extension,
                         "; write the name without ", extension);
}

void check_path(const keys::Key& key, const Settings& settings, Findings& findings)
{
    const std::string path = settings.text(key);
    if (!path.starts_with('/'))
        findings.warning(settings.line(key), key.name, " = ", path, " depends on the directory in ",
                         "which the daemon starts; write a path that starts with '/'");
}

}  // namespace

void check_values(const Settings& settings, Findings& findings)
{
    for (const keys::Key& key : keys::ALL)
        if (key.is_number() && settings.is_set(key))
            check_number(key, settings, findings);
    const int buffer = settings.number(keys::MAX_LENGTH_PER_SEC_RTP);
    if (buffer >= 0 && buffer < BLOCK_SIZE)
        findings.warning(settings.line(keys::MAX_LENGTH_PER_SEC_RTP),
                         "one record fills the buffer ",
                         "of the dump for up to max_buf_timeout_rtp seconds, and the daemon drops ",
                         "all records that follow; write 1048576 or more");

    check_name(keys::QOS_FILE_NAME, limits::TEXT_EXTENSION, settings, findings);
    check_name(keys::QOS_FILE_NAME_EOS, limits::TEXT_EXTENSION, settings, findings);
    check_name(keys::RTP_DUMP_FILE_NAME, limits::DUMP_EXTENSION, settings, findings);
    check_name(keys::LOG_FILE, limits::LOG_EXTENSION, settings, findings);
    if (settings.text(keys::QOS_FILE_NAME) == settings.text(keys::QOS_FILE_NAME_EOS))
        findings.error(settings.line(keys::QOS_FILE_NAME_EOS), "reports and summaries would share ",
                       "one file; give qos_file_name_eos another name");
    check_path(keys::QOS_STAT_DIR, settings, findings);
    check_path(keys::SN_FILE_PATH, settings, findings);
}
