// The daemon as a process of its own, whose calls can be made to fail.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <string>

#include "faults/faults.h"
#include "unit/harness.h"

// The daemon as a process, in a directory of its own; killed at the end if it still runs.
class Daemon {
public:
    // Its statistics go to dir. Faulty: the build whose calls can be made to fail; its log
    // directory is dir / "log", where "d.log" is looked at by start().
    explicit Daemon(std::string config, bool faulty = false);
    ~Daemon();
    void start();  // returns when it listens, on ports that were free, or has ended
    void spawn(const std::string& arguments);  // as they are, without a configuration
    void send_qos(const std::string& report) const { send_udp(port, report); }
    void send_voice(const std::string& records) const { send_udp(port + 1, records); }
    // Wait until the file in dir, or the output, holds the text; a line begins with "\n".
    bool holds(const std::string& file, const std::string& text, std::size_t times = 1) const;
    bool printed(const std::string& text, std::size_t n = 1) const
    {
        return holds("stdout", text, n);
    }
    std::string output() const { return read_file(dir / "stdout"); }
    std::string said() const { return output() + read_file(dir / "log/d.log"); }
    bool has_ended();
    int wait();  // the exit status; 256 + signal when killed by one, -1 when it does not end
    // Ends it by the signal, which is sent again now and then: one that comes between the test
    // of the running flag and the wait for input is noticed after that wait only.
    int stop(int signal = SIGTERM);

    TempDir dir;
    int port = 0;
    pid_t pid = 0;
    Faults* faults;
    std::string redirection = ">stdout";  // of its standard descriptors, in the shell's language

private:
    std::string _binary, _config;
    int _status = -1;
};
