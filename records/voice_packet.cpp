#include "records/voice_packet.h"

#include <arpa/inet.h>
#include <endian.h>
#include <netinet/in.h>

#include <cstring>

namespace {

// A longer payload counts as CUT_PAYLOAD bytes.
constexpr std::uint32_t MAX_PAYLOAD = 2024;
constexpr std::uint32_t CUT_PAYLOAD = 2023;

constexpr std::array<std::uint8_t, 6> DESTINATION_MAC = {0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA};
constexpr std::array<std::uint8_t, 6> SOURCE_MAC = {0xBB, 0xBB, 0xBB, 0xBB, 0xBB, 0xBB};
constexpr std::uint16_t ETHER_TYPE_IPV4 = 0x0800;

constexpr std::uint8_t VERSION_4_FIVE_WORDS = 0x45;
constexpr std::uint16_t DONT_FRAGMENT = 0x4000;
constexpr std::uint8_t TIME_TO_LIVE = 64;

}  // namespace

void VoicePacket::init_pcap_packet(const char* record, int /*record_length*/)
{
    std::memcpy(&_voice_hdr, record, sizeof _voice_hdr);
    std::uint32_t payload_length = ntohl(_voice_hdr.payload_length);
    if (payload_length > MAX_PAYLOAD)
        payload_length = CUT_PAYLOAD;
    // One byte after the record stays free for the zero byte.
    const bool stored = HEADERS_SIZE + payload_length < BUFFER_SIZE;

    fill_headers(payload_length, stored);
    lay_out_headers();
    if (stored) {
        std::memcpy(_pcap_packet.data() + HEADERS_SIZE, record + VOICE_HEADER_SIZE, payload_length);
        _pcap_size += static_cast<int>(payload_length);
        _pcap_packet[HEADERS_SIZE + payload_length] = '\0';
    }
}

void VoicePacket::fill_headers(std::uint32_t payload_length, bool stored)
{
    constexpr std::uint32_t FRAME_HEADERS = sizeof _eth_hdr + sizeof _ip_hdr + sizeof _udp_hdr;
    const auto udp_length = static_cast<std::uint16_t>(sizeof _udp_hdr + payload_length);
    const auto ip_length = static_cast<std::uint16_t>(sizeof _ip_hdr + udp_length);

    _pcap_hdr = {.ts_sec = htole32(ntohl(_voice_hdr.seconds)),
                 .ts_usec = htole32(ntohl(_voice_hdr.microseconds)),
                 .incl_len = htole32(FRAME_HEADERS + (stored ? payload_length : 0)),
                 .orig_len = htole32(FRAME_HEADERS + payload_length)};
    _eth_hdr = {
        .destination = DESTINATION_MAC, .source = SOURCE_MAC, .ether_type = htons(ETHER_TYPE_IPV4)};
    _ip_hdr = {.version_and_length = VERSION_4_FIVE_WORDS,
               .type_of_service = 0,
               .total_length = htons(ip_length),
               .identification = 0,
               .flags_and_offset = htons(DONT_FRAGMENT),
               .time_to_live = TIME_TO_LIVE,
               .protocol = IPPROTO_UDP,
               .checksum = 0,
               .source = _voice_hdr.source_address,
               .destination = _voice_hdr.destination_address};
    _udp_hdr = {.source_port = _voice_hdr.source_port,
                .destination_port = _voice_hdr.destination_port,
                .length = htons(udp_length),
                .checksum = 0};
}

void VoicePacket::lay_out_headers()
{
    char* end = _pcap_packet.data();
    const auto append = [&end](const void* header, std::size_t size) {
        std::memcpy(end, header, size);
        end += size;
    };
    append(&_pcap_hdr, sizeof _pcap_hdr);
    append(&_eth_hdr, sizeof _eth_hdr);
    append(&_ip_hdr, sizeof _ip_hdr);
    append(&_udp_hdr, sizeof _udp_hdr);
    _pcap_size = static_cast<int>(HEADERS_SIZE);
}
