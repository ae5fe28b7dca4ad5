// What stands around and between the JSON lines of a batch, so that they make a JSON array.
#pragma once

#include <string_view>

namespace batch_frame {

inline constexpr std::string_view START = "[\n";
inline constexpr std::string_view SEPARATOR = ",\n";
inline constexpr std::string_view END = "\n]";

}  // namespace batch_frame
