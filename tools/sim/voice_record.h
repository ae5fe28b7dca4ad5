// One voice record as the voice software sends it: a 24-byte header, then the RTP packet.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

struct VoiceRecord {
    static constexpr std::size_t RTP_HEADER_SIZE = 12;

    std::uint32_t source_address = 0, destination_address = 0;  // host order, like all below
    std::uint16_t source_port = 0, destination_port = 0;
    std::chrono::system_clock::time_point captured;
    std::uint16_t sequence = 0;
    std::uint32_t timestamp = 0;  // in samples
    std::uint32_t ssrc = 0;

    // Appends the record to a datagram. The sound (PCMU) is the payload of its RTP packet.
    void append_to(std::string& datagram, std::string_view sound) const;
};
