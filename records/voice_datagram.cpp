#include "records/voice_datagram.h"

#include <arpa/inet.h>

#include <cstdint>
#include <cstring>

#include "records/voice_packet.h"

const char* VoiceDatagram::next_record(int& length)
{
    if (bytes_left() < VoicePacket::VOICE_HEADER_SIZE)
        return nullptr;
    const char* const record = _data + _offset;
    std::uint32_t payload_length = 0;
    std::memcpy(&payload_length, record, sizeof payload_length);
    payload_length = ntohl(payload_length);
    // Compared with what remains after the header, because adding to the length could overflow.
    if (payload_length > bytes_left() - VoicePacket::VOICE_HEADER_SIZE)
        return nullptr;
    const std::size_t record_length = VoicePacket::VOICE_HEADER_SIZE + payload_length;
    _offset += record_length;
    length = static_cast<int>(record_length);
    return record;
}
