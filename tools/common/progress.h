// One line on the terminal that shows how far a run is, once it has taken a second. Nothing at all
// if standard error is not a terminal.
#pragma once

#include <chrono>
#include <string>

class Progress {
public:
    Progress();
    ~Progress() { erase(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Whether it is time for the next show(); asks the clock.
    bool is_due() const;
    void show(const std::string& text);

    // Takes the line away, so that a message can be printed.
    void erase();

private:
    bool _on_terminal;
    bool _shown = false;
    std::chrono::steady_clock::time_point _next;
};
