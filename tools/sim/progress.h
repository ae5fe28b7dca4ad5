// One line that shows how far a run is, if standard error is a terminal; nothing at all otherwise.
#pragma once

#include <chrono>
#include <cstdint>

class Progress {
public:
    explicit Progress(const char* unit);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void show(std::uint64_t done, std::uint64_t total);

private:
    const char* _unit;
    bool _on_terminal;
    bool _shown = false;
    std::chrono::steady_clock::time_point _next;
};
