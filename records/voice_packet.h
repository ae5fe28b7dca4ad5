// One voice record (an RTP packet with its addresses and capture time) as a pcap record.
//
// The record header follows the pcap file format, little-endian with microseconds; the Ethernet,
// IPv4 (RFC 791) and UDP (RFC 768) headers in front of the RTP packet are synthesised, with their
// checksums left at 0. Main thread only; one object is reused for every record.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

class VoicePacket {
public:
    static constexpr std::size_t VOICE_HEADER_SIZE = 24;

    // Initialises nothing: every field used is written by init_pcap_packet.
    // cppcheck-suppress uninitMemberVar
    VoicePacket() = default;

    // Converts the voice record that starts at record; it replaces the one held before. The
    // payload length is taken from the record's header, and header and payload must lie inside
    // what was received. A payload over 1989 bytes is left out; its headers are kept.
    void init_pcap_packet(const char* record, int record_length);

    // The pcap record and its length in bytes, 58 to 2047.
    int* get_pcap_packet() { return reinterpret_cast<int*>(_pcap_packet.data()); }
    int get_pcap_size() const { return _pcap_size; }

private:
    struct PcapHeader {  // little-endian
        std::uint32_t ts_sec;
        std::uint32_t ts_usec;
        std::uint32_t incl_len;
        std::uint32_t orig_len;
    };
    struct EthernetHeader {
        std::array<std::uint8_t, 6> destination;
        std::array<std::uint8_t, 6> source;
        std::uint16_t ether_type;  // network order, as all below
    };
    struct IpHeader {
        std::uint8_t version_and_length;
        std::uint8_t type_of_service;
        std::uint16_t total_length;
        std::uint16_t identification;
        std::uint16_t flags_and_offset;
        std::uint8_t time_to_live;
        std::uint8_t protocol;
        std::uint16_t checksum;
        std::uint32_t source;
        std::uint32_t destination;
    };
    struct UdpHeader {
        std::uint16_t source_port;
        std::uint16_t destination_port;
        std::uint16_t length;
        std::uint16_t checksum;
    };
    struct VoiceHeader {
        std::uint32_t payload_length;
        std::uint32_t source_address;
        std::uint32_t destination_address;
        std::uint16_t source_port;
        std::uint16_t destination_port;
        std::uint32_t seconds;
        std::uint32_t microseconds;
    };
    static_assert(sizeof(PcapHeader) == 16 && sizeof(EthernetHeader) == 14 &&
                  sizeof(IpHeader) == 20 && sizeof(UdpHeader) == 8 &&
                  sizeof(VoiceHeader) == VOICE_HEADER_SIZE);

    static constexpr std::size_t BUFFER_SIZE = 2048;
    static constexpr std::size_t HEADERS_SIZE =
        sizeof(PcapHeader) + sizeof(EthernetHeader) + sizeof(IpHeader) + sizeof(UdpHeader);

    void fill_headers(std::uint32_t payload_length, bool stored);
    void lay_out_headers();

    alignas(int) std::array<char, BUFFER_SIZE> _pcap_packet;
    int _pcap_size;
    PcapHeader _pcap_hdr;
    EthernetHeader _eth_hdr;
    IpHeader _ip_hdr;
    UdpHeader _udp_hdr;
    VoiceHeader _voice_hdr;
};
