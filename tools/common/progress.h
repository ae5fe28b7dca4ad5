// Shows the progress of a run in one line on the terminal, if the run takes more than a second.
// Prints nothing if standard error is not a terminal.
#pragma once

#include <chrono>
#include <string>

class Progress {
public:
    Progress();
    ~Progress() { erase(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Whether it is time for the next show().
    bool is_due() const;
    void show(const std::string& text);

    // Erases the line, so that a message can be printed.
    void erase();

private:
    bool _on_terminal;
    bool _shown = false;
    std::chrono::steady_clock::time_point _next;
};
