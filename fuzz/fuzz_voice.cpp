// The voice datagram: splitting it into records, and the pcap record of each. libpcap reads them.
#include <pcap/pcap.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/invariant.h"
#include "records/voice_datagram.h"
#include "records/voice_packet.h"

namespace {

constexpr std::size_t VOICE_HEADER = 24;
constexpr std::size_t PCAP_RECORD_HEADER = 16;
constexpr std::size_t FRAME_HEADERS = 42;
constexpr std::size_t LONGEST_STORED = 1989;
constexpr std::size_t LENGTH_LIMIT = 2024;
constexpr std::size_t CUT_LENGTH = 2023;
constexpr std::size_t ETHER_TYPE_IPV4 = 0x0800;
constexpr std::size_t VERSION_AND_SERVICE = 0x4500;
constexpr std::size_t DONT_FRAGMENT = 0x4000;  // follows an identification of 0
constexpr std::size_t TTL_AND_UDP = 0x4011;

std::size_t big_endian(const char* bytes, int count)
{
    std::size_t value = 0;
    for (int i = 0; i < count; i++)
        value = value << 8 | static_cast<unsigned char>(bytes[i]);
    return value;
}

struct Record {
    std::size_t seconds;
    std::size_t microseconds;
    std::size_t payload;  // bytes, according to the record
    std::string frame;    // what must follow the record header in the file
};

std::string bytes_of(std::size_t value, int count)
{
    std::string text;
    for (int shift = 8 * (count - 1); shift >= 0; shift -= 8)
        text += static_cast<char>(value >> shift & 0xFF);
    return text;
}

// The expected record, built from the wire format alone.
Record wanted_record(const char* record)
{
    std::size_t length = big_endian(record, 4);
    if (length > LENGTH_LIMIT)
        length = CUT_LENGTH;
    std::string frame(6, '\xAA');
    frame.append(6, '\xBB').append(bytes_of(ETHER_TYPE_IPV4, 2));
    frame.append(bytes_of(VERSION_AND_SERVICE, 2)).append(bytes_of(length + 28, 2));
    frame.append(bytes_of(DONT_FRAGMENT, 4)).append(bytes_of(TTL_AND_UDP, 2)).append(2, '\0');
    frame.append(record + 4, 12).append(bytes_of(length + 8, 2)).append(2, '\0');
    if (length <= LONGEST_STORED)
        frame.append(record + VOICE_HEADER, length);
    return {.seconds = big_endian(record + 16, 4),
            .microseconds = big_endian(record + 20, 4),
            .payload = length,
            .frame = frame};
}

// A file of these records, and what libpcap must read from it.
struct Dump {
    std::string bytes;
    std::vector<Record> records;
};

Dump walk(const char* data, std::size_t size)
{
    static constexpr std::array<char, 24> FILE_HEADER = {
        '\xD4', '\xC3', '\xB2', '\xA1', 2,      0,      4, 0, 0, 0, 0, 0,
        0,      0,      0,      0,      '\xFF', '\xFF', 0, 0, 1, 0, 0, 0};
    Dump dump{.bytes = {FILE_HEADER.data(), FILE_HEADER.size()}, .records = {}};
    VoiceDatagram datagram(data, size);
    VoicePacket packet;
    std::size_t end = 0;
    int length = 0;
    while (const char* record = datagram.next_record(length)) {
        expect(record == data + end, "a record starts where the last one ended");
        expect(static_cast<std::size_t>(length) == big_endian(record, 4) + VOICE_HEADER,
               "a record has the length that it gives");
        end += static_cast<std::size_t>(length);
        expect(end <= size && datagram.offset() == end, "a record lies inside the bytes received");

        packet.init_pcap_packet(record, length);
        dump.records.push_back(wanted_record(record));
        expect(packet.get_pcap_size() ==
                   static_cast<int>(PCAP_RECORD_HEADER + dump.records.back().frame.size()),
               "the size of a pcap record");
        dump.bytes.append(reinterpret_cast<const char*>(packet.get_pcap_packet()),
                          static_cast<std::size_t>(packet.get_pcap_size()));
    }
    expect(end + datagram.bytes_left() == size, "lengths and rest sum up to the datagram");
    expect(size - end < VOICE_HEADER || big_endian(data + end, 4) > size - end - VOICE_HEADER,
           "the walk ends where no whole record follows");
    return dump;
}

void check_readable(Dump& dump)
{
    FILE* const file = fmemopen(dump.bytes.data(), dump.bytes.size(), "rb");
    expect(file != nullptr, "a file in memory");
    std::array<char, PCAP_ERRBUF_SIZE> error{};
    pcap_t* const capture = pcap_fopen_offline(file, error.data());
    expect(capture != nullptr, error.data());
    expect(pcap_datalink(capture) == DLT_EN10MB, "the link type");

    pcap_pkthdr* header = nullptr;
    const unsigned char* frame = nullptr;
    for (const Record& record : dump.records) {
        expect(pcap_next_ex(capture, &header, &frame) == 1, "every record is readable");
        expect(header->caplen == record.frame.size() &&
                   header->len == FRAME_HEADERS + record.payload,
               "stored and original length");
        expect(static_cast<std::uint32_t>(header->ts.tv_sec) == record.seconds &&
                   static_cast<std::uint32_t>(header->ts.tv_usec) == record.microseconds,
               "the capture time");
        expect(std::memcmp(frame, record.frame.data(), record.frame.size()) == 0, "the frame");
    }
    expect(pcap_next_ex(capture, &header, &frame) == PCAP_ERROR_BREAK, "nothing follows");
    pcap_close(capture);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Dump dump = walk(reinterpret_cast<const char*>(data), size);
    if (!dump.records.empty())
        check_readable(dump);
    return 0;
}
