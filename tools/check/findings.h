// What there is to mend: collected by the checks, printed in the order of the file's lines.
#pragma once

#include <array>
#include <cstddef>
#include <sstream>
#include <string>
#include <vector>

class Findings {
public:
    enum Level { NOTE, WARNING, ERROR };

    struct Finding {
        Level level;
        std::size_t line;
        std::string text;

        const char* severity() const;  // "note", "warning" or "error"
    };

    // The file that the findings are about, as it is to be named in front of each.
    explicit Findings(std::string file);

    // A finding says what is wrong and what to do; its parts are joined as a stream prints them.
    // Line 0: about no line of the file, for example about a key that it does not have.
    template <typename... Parts>
    void error(std::size_t line, const Parts&... parts)
    {
        add(ERROR, line, joined(parts...));
    }
    template <typename... Parts>
    void warning(std::size_t line, const Parts&... parts)
    {
        add(WARNING, line, joined(parts...));
    }
    template <typename... Parts>
    void note(std::size_t line, const Parts&... parts)
    {
        add(NOTE, line, joined(parts...));
    }

    // Prints what was added since the last time, a line each: FILE:LINE: error: TEXT.
    // On a terminal the kind stands in colour.
    void print();

    // 0 when there was nothing but notes so far, 1 with warnings, 2 with errors.
    int status() const { return static_cast<int>(_worst); }

    // "no problems found", or how many errors and warnings there were.
    std::string summary() const;

    std::size_t errors() const { return _count[ERROR]; }
    std::size_t warnings() const { return _count[WARNING]; }

    // The first of the worst that was not printed so far, and how many more there are.
    std::string headline() const;

    // What was not printed so far.
    const std::vector<Finding>& pending() const { return _pending; }

private:
    template <typename... Parts>
    static std::string joined(const Parts&... parts)
    {
        std::ostringstream text;
        (text << ... << parts);
        return text.str();
    }

    void add(Level level, std::size_t line, const std::string& text);

    std::string _file;
    bool _in_colour;
    Level _worst = NOTE;
    std::array<std::size_t, ERROR + 1> _count{};
    std::vector<Finding> _pending;
};
