// What the tests stand on: temporary directories, the log, the daemon as a process of its own,
// and a web server that records and misbehaves. Every wait ends at an event or at its deadline.
// The log, the clock and the faults belong to the process and are not put back: each test runs in
// a process of its own, as ctest starts them.
#pragma once

#include <atomic>
#include <csignal>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "config/config_file.h"
#include "support/faults.h"

struct TempDir {  // removed with all that is in it
    TempDir();
    ~TempDir();
    std::string operator/(const std::string& name) const { return path + "/" + name; }
    std::string path = "/tmp/voxstat-test-XXXXXX";
};

void write_file(const std::string& path, const std::string& text);
std::string read_file(const std::string& path);  // "" when there is none
std::size_t count(const std::string& text, const std::string& part);
std::string bytes(std::string hex);  // blanks do not matter
ConfigFile config_of(const std::string& text, char separator = '=');
// True as soon as the condition holds; false when it does not in time.
bool eventually(const std::function<bool()>& condition, int seconds = 20);

int free_port_pair();  // a free UDP port whose successor is free too, unless somebody comes first
// To 127.0.0.<host>.
void send_udp(int port, const std::string& datagram, unsigned host = 1);
// A voice record; its length word is the truth unless it is given.
std::string voice_record(const std::string& payload, std::size_t length = std::string::npos);

// Starts the logger and ends its writer thread, so that all that is logged waits to be taken.
struct LogCapture {
    explicit LogCapture(const std::string& config = "log.default=4");
    // What came since the last call, without empty lines, time stamps and thread identifiers:
    // "[ERROR] text", " [WARN] text".
    static std::string take();
    static std::string bare(const std::string& log);
};

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

// A web server on loopback that records every request and answers as it is told.
class HttpServer {
public:
    enum Answer { OK, ERROR_500, HALF };
    struct Request {
        std::string head, body;
    };
    HttpServer();
    ~HttpServer();
    std::vector<Request> requests(std::size_t first = 0);  // from this one on
    bool received(std::size_t number)                      // until so many requests have come
    {
        return eventually([this, number] { return requests().size() >= number; });
    }
    std::atomic<Answer> answer{OK};
    std::string url;

private:
    void accept_all();
    void serve(int fd);
    int _socket;
    std::atomic<bool> _stopping{false};
    std::mutex _mutex;  // guards _requests
    std::vector<Request> _requests;
    std::jthread _acceptor;
};
