// Iterates over the voice records of one datagram.
//
// Records lie end to end with no padding and no count. Each starts with a 4-byte big-endian
// payload length L and takes L + 24 bytes: a 24-byte header, which begins with the length, and L
// bytes of payload. The lengths come from the network, so each is checked against the size of
// the datagram before anything is read.
//
// Main thread only; looks at the caller's bytes, owns nothing.
#pragma once

#include <cstddef>

class VoiceDatagram {
public:
    VoiceDatagram(const char* data, std::size_t size) : _data(data), _size(size) {}

    // The next record, with its length (24 bytes or more). Null at the end, and when the record
    // extends beyond the datagram.
    const char* next_record(int& length);

    // The end of the last record returned, and the number of bytes after it. Bytes left when
    // next_record() returns null belong to a malformed record.
    std::size_t offset() const { return _offset; }
    std::size_t bytes_left() const { return _size - _offset; }

private:
    const char* _data;
    std::size_t _size;
    std::size_t _offset = 0;
};
