// The JSON around statistics lines. QoSPacket::build_lines() puts a line into an object,
// WebClient::WC_Write() joins the objects, and HttpHanle::take_lines() makes an array of them.
#pragma once

#include <string_view>

namespace json_frame {

inline constexpr const char* LINE_START = R"({"message": ")";
inline constexpr const char* LINE_END = R"("})";

inline constexpr std::string_view BATCH_START = "[\n";
inline constexpr std::string_view SEPARATOR = ",\n";
inline constexpr std::string_view BATCH_END = "\n]";

}  // namespace json_frame
