#include "tools/pcap_records.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

#include "tools/load_marks.h"

namespace {

using namespace std::string_view_literals;

constexpr std::string_view FILE_HEADER =
    "\xD4\xC3\xB2\xA1\x02\x00\x04\x00\x00\x00\x00\x00\x00\x00\x00\x00\xFF\xFF\x00\x00\x01\x00\x00\x00"sv;
// What every frame of the daemon begins with; nothing else in a dump looks like it.
constexpr std::string_view ETHERNET_HEADER =
    "\xAA\xAA\xAA\xAA\xAA\xAA\xBB\xBB\xBB\xBB\xBB\xBB\x08\x00"sv;

constexpr std::size_t RECORD_HEADER_SIZE = 16;
constexpr std::size_t STORED_LENGTH_AT = 8;
constexpr std::size_t RTP_AT = 14 + 20 + 8;  // behind the Ethernet, IPv4 and UDP headers
constexpr std::size_t SEQUENCE_AT = RTP_AT + 2;
constexpr std::size_t TIMESTAMP_AT = RTP_AT + 4;
constexpr std::size_t SSRC_AT = RTP_AT + 8;
constexpr std::size_t NUMBER_AT = RTP_AT + 12;
constexpr std::size_t NUMBER_SIZE = 4;

std::uint32_t byte_at(std::string_view bytes, std::size_t at)
{
    return static_cast<unsigned char>(bytes[at]);
}

std::uint32_t big_endian_16(std::string_view bytes, std::size_t at)
{
    return byte_at(bytes, at) << 8 | byte_at(bytes, at + 1);
}

std::uint32_t big_endian_32(std::string_view bytes, std::size_t at)
{
    return big_endian_16(bytes, at) << 16 | big_endian_16(bytes, at + 2);
}

std::uint32_t little_endian_32(std::string_view bytes, std::size_t at)
{
    return byte_at(bytes, at + 3) << 24 | byte_at(bytes, at + 2) << 16 |
           byte_at(bytes, at + 1) << 8 | byte_at(bytes, at);
}

void account_frame(std::string_view frame, Account& account)
{
    if (frame.size() < NUMBER_AT + NUMBER_SIZE || big_endian_32(frame, SSRC_AT) != LOAD_SSRC) {
        account.other++;
        return;
    }
    const std::uint32_t number = big_endian_32(frame, NUMBER_AT);
    if (big_endian_16(frame, SEQUENCE_AT) == (number & 0xFFFF) &&
        big_endian_32(frame, TIMESTAMP_AT) == number * LOAD_SAMPLES_PER_PACKET)
        account.ledger.add(number);
    else
        account.torn++;
}

// The size of the record that the bytes begin with; nothing when it is not there as a whole.
std::optional<std::size_t> whole_record(std::string_view bytes)
{
    if (!bytes.substr(std::min(bytes.size(), RECORD_HEADER_SIZE)).starts_with(ETHERNET_HEADER))
        return std::nullopt;
    const std::size_t size = RECORD_HEADER_SIZE + little_endian_32(bytes, STORED_LENGTH_AT);
    if (size > bytes.size())
        return std::nullopt;
    // A daemon that was started anew appends to the torn record of the one that was killed.
    const std::string_view behind = bytes.substr(0, size).substr(RECORD_HEADER_SIZE + 1);
    return behind.find(ETHERNET_HEADER) == std::string_view::npos ? std::optional(size)
                                                                  : std::nullopt;
}

// Where the first record behind a torn one begins, or the end of the bytes.
std::size_t next_record(std::string_view bytes)
{
    const std::size_t frame = bytes.find(ETHERNET_HEADER, RECORD_HEADER_SIZE + 1);
    return frame == std::string_view::npos ? bytes.size() : frame - RECORD_HEADER_SIZE;
}

}  // namespace

void account_pcap_records(std::string_view bytes, Account& account)
{
    const std::size_t begun = std::min(bytes.size(), FILE_HEADER.size());
    if (bytes.substr(0, begun) != FILE_HEADER.substr(0, begun))
        throw std::runtime_error("not a pcap dump of the daemon");
    if (begun > 0 && begun < FILE_HEADER.size())
        account.torn++;
    bytes.remove_prefix(begun);
    while (!bytes.empty()) {
        const std::optional<std::size_t> size = whole_record(bytes);
        if (size)
            account_frame(bytes.substr(RECORD_HEADER_SIZE, *size - RECORD_HEADER_SIZE), account);
        else
            account.torn++;
        bytes.remove_prefix(size.value_or(next_record(bytes)));
    }
}
