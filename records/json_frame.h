// How statistics lines become JSON: QoSPacket puts each into an object, and the web client joins
// the objects into an array.
#pragma once

#include <string_view>

namespace json_frame {

inline constexpr const char* LINE_START = R"({"message": ")";
inline constexpr const char* LINE_END = R"("})";

inline constexpr std::string_view BATCH_START = "[\n";
inline constexpr std::string_view SEPARATOR = ",\n";
inline constexpr std::string_view BATCH_END = "\n]";

}  // namespace json_frame
