// How numbered load is told from everything else.
#pragma once

#include <cstdint>

// The RTP stream of numbered voice records. Sequence number and time stamp follow from the number.
constexpr std::uint32_t LOAD_SSRC = 0x4C4F4144;  // "LOAD"
constexpr std::uint32_t LOAD_SAMPLES_PER_PACKET = 160;

// A numbered report carries its number twice, as SSRC and, with this many digits or more, as RTCP
// name. So the lines of small numbers have one length, and a line that was put together from two
// is noticed.
constexpr int LOAD_NAME_DIGITS = 5;
