#include "tools/sim/voice_record.h"

namespace {

constexpr std::uint8_t RTP_VERSION_2 = 0x80;
constexpr std::uint8_t PAYLOAD_TYPE_PCMU = 0;

void append_byte(std::string& bytes, std::uint32_t value)
{
    bytes += static_cast<char>(static_cast<unsigned char>(value & 0xFF));
}

// Network order.
void append_16(std::string& bytes, std::uint32_t value)
{
    append_byte(bytes, value >> 8);
    append_byte(bytes, value);
}

void append_32(std::string& bytes, std::uint32_t value)
{
    append_16(bytes, value >> 16);
    append_16(bytes, value);
}

}  // namespace

void VoiceRecord::append_to(std::string& datagram, std::string_view sound) const
{
    constexpr long MICROSECONDS = 1000000;
    const std::int64_t since_epoch =
        std::chrono::duration_cast<std::chrono::microseconds>(captured.time_since_epoch()).count();

    append_32(datagram, static_cast<std::uint32_t>(RTP_HEADER_SIZE + sound.size()));
    append_32(datagram, source_address);
    append_32(datagram, destination_address);
    append_16(datagram, source_port);
    append_16(datagram, destination_port);
    append_32(datagram, static_cast<std::uint32_t>(since_epoch / MICROSECONDS));
    append_32(datagram, static_cast<std::uint32_t>(since_epoch % MICROSECONDS));

    append_byte(datagram, RTP_VERSION_2);
    append_byte(datagram, PAYLOAD_TYPE_PCMU);
    append_16(datagram, sequence);
    append_32(datagram, timestamp);
    append_32(datagram, ssrc);
    datagram += sound;
}
