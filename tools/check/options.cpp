#include "tools/check/options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <map>

#include "config/keys.h"
#include "tools/common/numbers.h"

namespace {

constexpr const char* PACKAGED_FILE = "/etc/voxstat/voxstat.cfg";
constexpr int USAGE_STATUS = 2, NAGIOS_USAGE_STATUS = 3;
constexpr int USER = 'u', POST = 'p', LIVE = 'l', HELP = 'h', VERSION = 'V';
constexpr time_t MAX_SINCE = 1000000;  // of its unit
constexpr int FORMAT = 'F', NAGIOS = 'n', SINCE = 's', STATE = 'S';

const option LONG_OPTIONS[] = {{"file", required_argument, nullptr, 'f'},
                               {"user", required_argument, nullptr, USER},
                               {"post", no_argument, nullptr, POST},
                               {"live", no_argument, nullptr, LIVE},
                               {"format", required_argument, nullptr, FORMAT},
                               {"nagios", no_argument, nullptr, NAGIOS},
                               {"since", required_argument, nullptr, SINCE},
                               {"state", required_argument, nullptr, STATE},
                               {"help", no_argument, nullptr, HELP},
                               {"version", no_argument, nullptr, VERSION},
                               {nullptr, 0, nullptr, 0}};

void print_key(const keys::Key& key)
{
    const std::string unset = *key.text == '\0' ? "unset" : key.text;
    const std::string fallback = key.is_number() ? std::to_string(key.number) : unset;
    const std::string range = key.is_number() ? key.range() + ' ' : "";
    std::printf("  %-24s %-26s %s(%s)\n", key.name, fallback.c_str(), range.c_str(), key.unit);
}

[[noreturn]] void print_help()
{
    std::printf(
        "Usage: voxstat-check [-f FILE] [--user NAME] [--post]\n"
        "                     [--live [--format FORMAT | --nagios]\n"
        "                             [--since PERIOD [--state FILE]]]\n"
        "\n"
        "Checks a configuration of voxstat and shows what its daemon has lost.\n"
        "\n"
        "  -f FILE          check this configuration (default %s)\n"
        "  --user NAME      check the permissions of this user (default: voxstat if it exists,\n"
        "                   otherwise you)\n"
        "  --post           also post a test batch to elastic_url\n"
        "  --live           also show the running daemon and what it has lost\n"
        "\n"
        "With --live:\n"
        "  --format FORMAT  print the result as text (default), json or prometheus\n"
        "  --nagios         print one line, and use the exit statuses of a Nagios plugin\n"
        "  --since PERIOD   count only the losses of the last PERIOD, for example 30m, 24h or 7d\n"
        "                   (default: all since the daemon started)\n"
        "  --state FILE     with --since: record in FILE when the kernel dropped datagrams\n"
        "\n"
        "  --version        print the version\n"
        "  --help           print this text\n"
        "\n"
        "Exit status: 0 if there are no problems, 1 if there are warnings, 2 if there are errors;\n"
        "with --nagios, 3 if the state is unknown.\n"
        "\n"
        "  %-24s %-26s %s\n",
        PACKAGED_FILE, "Key", "Default", "Range (unit)");
    for (const keys::Key& key : keys::ALL)
        print_key(key);
    std::exit(EXIT_SUCCESS);
}

[[noreturn]] void fail(const Options& options, const std::string& text)
{
    std::fprintf(stderr, "voxstat-check: %s; see --help\n", text.c_str());
    std::exit(options.format == Format::NAGIOS ? NAGIOS_USAGE_STATUS : USAGE_STATUS);
}

Format to_format(const Options& options, const std::string& name)
{
    static const std::map<std::string, Format> formats = {
        {"text", Format::TEXT}, {"json", Format::JSON}, {"prometheus", Format::PROMETHEUS}};
    const auto found = formats.find(name);
    if (found == formats.end())
        fail(options, "unknown format \"" + name + '"');
    return found->second;
}

// "90s", "30m", "24h" or "7d".
time_t to_seconds(const Options& options, const std::string& text)
{
    static const std::map<char, time_t> units = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};
    const auto unit = units.find(text.empty() ? '\0' : text.back());
    time_t number = 0;
    if (unit == units.end() ||
        !to_number(std::string_view(text).substr(0, text.size() - 1), number, time_t{1}, MAX_SINCE))
        fail(options, "--since needs a period such as 30m, 24h or 7d, not \"" + text + '"');
    return number * unit->second;
}

void check_combination(const Options& options)
{
    const bool is_limited = options.since || options.state;
    if (!options.live && (options.format != Format::TEXT || is_limited))
        fail(options, "--format, --nagios, --since and --state need --live");
    if (options.format == Format::PROMETHEUS && is_limited)
        fail(options, "--format prometheus does not work with --since or --state");
    if (options.state && !options.since)
        fail(options, "--state needs --since");
}

}  // namespace

Options Options::read(int argc, char** argv)
{
    Options options;
    options.file = PACKAGED_FILE;
    for (int given = 0;
         (given = getopt_long(argc, argv, "f:", static_cast<const option*>(LONG_OPTIONS),
                              nullptr)) != -1;) {
        if (given == 'f')
            options.file = optarg;
        else if (given == USER)
            options.user = optarg;
        else if (given == POST)
            options.post = true;
        else if (given == LIVE)
            options.live = true;
        else if (given == FORMAT)
            options.format = to_format(options, optarg);
        else if (given == NAGIOS)
            options.format = Format::NAGIOS;
        else if (given == SINCE)
            options.since = to_seconds(options, optarg);
        else if (given == STATE)
            options.state = optarg;
        else if (given == HELP)
            print_help();
        else if (given == VERSION)
            std::exit(std::printf("voxstat-check %s\n", VOXSTAT_VERSION) < 0);
        else
            fail(options, "invalid option");  // getopt has named it
    }
    if (optind < argc)
        fail(options, std::string("unexpected argument \"") + argv[optind] + '"');
    check_combination(options);
    return options;
}
