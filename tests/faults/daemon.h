// The daemon as a process of its own, whose calls can be made to fail.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <string>

#include "faults/faults.h"
#include "unit/harness.h"

// Lives in a directory of its own; killed at the end if it still runs. Its statistics go to dir
// and its fixed directories lie below dir / "root", which has "var/log" and so may have a
// "var/log/current/d.log", at which said() looks.
class Daemon {
public:
    explicit Daemon(const std::string& config);
    ~Daemon();
    void start();  // returns when it waits for input, or has ended
    void send_qos(const std::string& report) const { send_udp(faults->ports[0], report); }
    void send_voice(const std::string& records) const { send_udp(faults->ports[1], records); }
    std::string said() const;  // on standard output and in its log
    bool has_ended();
    int wait();  // the exit status; 256 + signal when killed by one, -1 when it does not end
    // Ends it by the signal, which is sent again now and then: one that comes between the test
    // of the running flag and the wait for input is noticed after that wait only.
    int stop(int signal = SIGTERM);

    TempDir dir;
    pid_t pid = 0;
    Faults* faults;

private:
    int _status = -1;
};
