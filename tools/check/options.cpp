#include "tools/check/options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>

#include "config/keys.h"

namespace {

constexpr const char* PACKAGED_FILE = "/etc/voxstat/voxstat.cfg";
constexpr int USAGE_STATUS = 2;
constexpr int USER = 'u', POST = 'p', LIVE = 'l', HELP = 'h', VERSION = 'V';

const option LONG_OPTIONS[] = {{"file", required_argument, nullptr, 'f'},
                               {"user", required_argument, nullptr, USER},
                               {"post", no_argument, nullptr, POST},
                               {"live", no_argument, nullptr, LIVE},
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
    std::printf("Usage: voxstat-check [-f FILE] [--user NAME] [--post] [--live]\n"
                "\n"
                "Finds what is wrong in a configuration of voxstat, or would go wrong with it.\n"
                "\n"
                "  -f FILE      the configuration; otherwise %s\n"
                "  --user NAME  the user that the daemon runs as; otherwise voxstat if there is\n"
                "               such a user, else you\n"
                "  --post       posts the two service reports to elastic_url, once\n"
                "  --live       shows the running daemon, and what it has lost\n"
                "  --version    prints the version\n"
                "  --help       prints this\n"
                "\n"
                "It ends with 0 when there is nothing to mend, 1 with warnings, 2 with errors.\n"
                "\n"
                "  %-24s %-26s %s\n",
                PACKAGED_FILE, "Key", "Default", "Range (unit)");
    for (const keys::Key& key : keys::ALL)
        print_key(key);
    std::exit(EXIT_SUCCESS);
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
        else if (given == HELP)
            print_help();
        else if (given == VERSION)
            std::exit(std::printf("voxstat-check %s\n", VOXSTAT_VERSION) < 0);
        else
            std::exit(USAGE_STATUS);  // getopt has said what is wrong
    }
    if (optind < argc) {
        std::fprintf(stderr, "%s: what is \"%s\"? Try --help.\n", argv[0], argv[optind]);
        std::exit(USAGE_STATUS);
    }
    return options;
}
