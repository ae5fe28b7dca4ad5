// Load mode: sends numbered datagrams of one kind, paced or as fast as possible.
#pragma once

#include <cstdint>
#include <string>

#include "tools/sim/sim_options.h"
#include "tools/sim/udp_sender.h"

class LoadGenerator {
public:
    // Throws std::system_error if no socket can be opened.
    explicit LoadGenerator(const SimOptions& options);

    // Sends everything and prints what it has sent as key=value words, even if a signal stops it.
    // Returns true if everything was sent.
    bool run();

private:
    void send_all();
    void send_burst(std::uint32_t done, std::uint32_t datagrams);
    void send_report(std::uint32_t number);
    void send_voice_record(std::uint32_t number);
    void print_summary(double seconds) const;

    SimOptions _options;
    UdpSender _sender;
    std::string _sound;     // the RTP payload: the number, then silence
    std::string _datagram;  // reused for every voice record
};
