// voxstat-account: tells which of the numbered reports or voice records of voxstat-sim are in the
// daemon's files.
#include <getopt.h>

#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <string>

#include "tools/account.h"
#include "tools/file_bytes.h"
#include "tools/pcap_records.h"
#include "tools/report_lines.h"

namespace {

constexpr const char* USAGE =
    R"(Usage: voxstat-account reports|pcap [--first N] [--count N] FILE...

Accounts for the numbered load of voxstat-sim in statistics or session-summary files (reports),
or in pcap dumps (pcap); live files and archives in any order. Prints key=value lines:

  numbered        whole lines or records that carry a number
  distinct        expected numbers that were found
  duplicates      findings beyond the first one of each number
  outside         findings that were not expected
  missing         expected numbers that were not found
  missing_ranges  these, as 5-9,12 (the first 50 ranges)
  torn            remains of lines or records, at the end of a file or inside it
  other           whole lines or records without a number

Expected are the numbers from --first (1) on, --count of them or up to the highest one found.
The exit status is 0 when all files could be read, 1 when not, 2 for a wrong command line.
)";

constexpr std::size_t MAX_RANGES_SHOWN = 50;

struct Options {
    void (*account_file)(std::string_view, Account&) = nullptr;
    std::uint32_t first = 1;
    std::optional<std::uint64_t> count;
    int first_file = 0;  // index in the arguments
};

std::optional<std::uint32_t> to_number(const char* text)
{
    std::uint32_t value = 0;
    const char* const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, value);
    if (error != std::errc() || stop != end)
        return std::nullopt;
    return value;
}

const option LONG_OPTIONS[] = {
    {"help", no_argument, nullptr, 'h'},
    {"first", required_argument, nullptr, 'f'},
    {"count", required_argument, nullptr, 'n'},
    {nullptr, 0, nullptr, 0},
};

std::optional<Options> parse(int argc, char** argv)
{
    Options options;
    int option = 0;
    while ((option = getopt_long(argc, argv, "", LONG_OPTIONS, nullptr)) != -1) {
        if (option == 'h') {
            std::fputs(USAGE, stdout);
            std::exit(0);
        }
        const std::optional<std::uint32_t> number =
            optarg == nullptr ? std::nullopt : to_number(optarg);
        if (!number)
            return std::nullopt;
        if (option == 'f')
            options.first = *number;
        else
            options.count = *number;
    }
    const std::string kind = optind < argc ? argv[optind] : "";
    if (kind == "reports")
        options.account_file = account_report_lines;
    else if (kind == "pcap")
        options.account_file = account_pcap_records;
    options.first_file = optind + 1;
    if (options.account_file == nullptr || options.first_file >= argc)
        return std::nullopt;
    return options;
}

std::string text_of(const std::vector<NumberRange>& ranges)
{
    std::string text;
    for (std::size_t i = 0; i < ranges.size(); i++) {
        if (i > 0)
            text += ',';
        if (i == MAX_RANGES_SHOWN)
            return text + "...";
        text += std::to_string(ranges[i].first);
        if (ranges[i].last > ranges[i].first)
            text.append("-").append(std::to_string(ranges[i].last));
    }
    return text;
}

void print(Account& account, const Options& options)
{
    const NumberBalance balance = account.ledger.balance(options.first, options.count);
    const auto print_number = [](const char* key, std::uint64_t value) {
        std::printf("%s=%" PRIu64 "\n", key, value);
    };
    print_number("first", options.first);
    print_number("count", balance.count);
    print_number("numbered", account.ledger.size());
    print_number("distinct", balance.distinct);
    print_number("duplicates", balance.duplicates);
    print_number("outside", balance.outside);
    print_number("missing", balance.missing);
    std::printf("missing_ranges=%s\n", text_of(balance.missing_ranges).c_str());
    print_number("torn", account.torn);
    print_number("other", account.other);
}

}  // namespace

int main(int argc, char** argv)
{
    const std::optional<Options> options = parse(argc, argv);
    if (!options) {
        (void)std::fputs(USAGE, stderr);
        return 2;
    }
    Account account;
    bool all_read = true;
    for (int i = options->first_file; i < argc; i++) {
        try {
            options->account_file(read_file(argv[i]), account);
        } catch (const std::exception& error) {
            (void)std::fprintf(stderr, "voxstat-account: %s: %s\n", argv[i], error.what());
            all_read = false;
        }
    }
    print(account, *options);
    return all_read ? 0 : 1;
}
