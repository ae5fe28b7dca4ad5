// Appends to a bounded buffer: a whole record or nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <initializer_list>
#include <string>
#include <string_view>

// Appends a record, in pieces, unless the buffer already holds more than cap bytes or cannot get
// the memory to grow. Returns the bytes appended; 0 means that the record is lost, and the caller
// counts it. The buffer's lock must be held. Never throws.
inline std::size_t append_bounded(std::string& buffer, std::int64_t cap,
                                  std::initializer_list<std::string_view> pieces) noexcept
{
    const std::size_t size = buffer.size();
    if (static_cast<std::int64_t>(size) > cap)
        return 0;
    try {
        for (const std::string_view piece : pieces)
            buffer += piece;
    } catch (const std::exception&) {
        buffer.resize(size);
    }
    return buffer.size() - size;
}
