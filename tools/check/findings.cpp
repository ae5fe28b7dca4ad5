#include "tools/check/findings.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <string_view>
#include <utility>

namespace {

constexpr const char* NAMES[] = {"note", "warning", "error"};
constexpr const char* COLOURS[] = {"\033[36m", "\033[1;35m", "\033[1;31m"};
constexpr const char* NO_COLOUR = "\033[0m";

bool colour_is_wanted()
{
    const char* terminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr &&
           terminal != nullptr && std::string_view(terminal) != "dumb";
}

std::string counted(std::size_t count, const std::string& what)
{
    return std::to_string(count) + ' ' + what + (count == 1 ? "" : "s");
}

// The file may contain anything: only printable characters may go to a terminal.
std::string printable(const std::string& text)
{
    std::string shown;
    for (const char c : text) {
        if (c == '\r')
            shown += "\\r";
        else if (c == '\n' || c == '\t')
            shown += ' ';
        else if (static_cast<unsigned char>(c) < ' ' || c == '\x7f')
            shown += '?';
        else
            shown += c;
    }
    return shown;
}

}  // namespace

const char* Findings::Finding::severity() const
{
    return NAMES[level];
}

Findings::Findings(std::string file) : _file(std::move(file)), _in_colour(colour_is_wanted()) {}

void Findings::add(Level level, std::size_t line, const std::string& text)
{
    _pending.push_back({level, line, printable(text)});
    _worst = std::max(_worst, level);
    _count[level]++;
}

void Findings::print()
{
    std::stable_sort(_pending.begin(), _pending.end(), [](const Finding& a, const Finding& b) {
        return a.line - 1 < b.line - 1;  // so that line 0 comes last
    });
    for (const Finding& finding : _pending) {
        std::cout << _file << ':';
        if (finding.line != 0)
            std::cout << finding.line << ':';
        std::cout << ' ' << (_in_colour ? COLOURS[finding.level] : "") << finding.severity()
                  << (_in_colour ? NO_COLOUR : "") << ": " << finding.text << '\n';
    }
    std::cout << std::flush;
    _pending.clear();
}

std::string Findings::summary() const
{
    if (_worst == NOTE)
        return "no problems found";
    return counted(_count[ERROR], "error") + ", " + counted(_count[WARNING], "warning");
}

std::string Findings::headline() const
{
    if (_worst == NOTE)
        return "no problems found";
    const auto worst = std::find_if(_pending.begin(), _pending.end(), [&](const Finding& finding) {
        return finding.level == _worst;
    });
    const std::size_t others = errors() + warnings() - 1;
    return worst->text + (others == 0 ? "" : " (and " + std::to_string(others) + " more)");
}
