// Collects the findings of the checks and prints them in the order of the file's lines.
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

    // The name of the checked file; each finding starts with it.
    explicit Findings(std::string file);

    // A finding says what is wrong and what to do; its parts are joined as a stream prints them.
    // Line 0 means that it is not about a line of the file, for example about a missing key.
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

    // Prints the findings added since the last call, one per line: FILE:LINE: error: TEXT.
    // On a terminal the severity is coloured.
    void print();

    // 0 if there are only notes so far, 1 if there are warnings, 2 if there are errors.
    int status() const { return static_cast<int>(_worst); }

    // "no problems found", or the number of errors and warnings.
    std::string summary() const;

    std::size_t errors() const { return _count[ERROR]; }
    std::size_t warnings() const { return _count[WARNING]; }

    // The first of the most severe findings that are not printed yet, and how many others there
    // are.
    std::string headline() const;

    // The findings that are not printed yet.
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
