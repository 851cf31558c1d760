#pragma once

#include <cstddef>

namespace TarnSocketIO::detail {

/// Bytes for the longest dotted decimal text, "255.255.255.255", and its terminator.
inline constexpr std::size_t dotted_text_size = 16;

/// Writes four octets in decimal with dots between them, and the terminator; nothing behind it is touched.
/// @param text  dotted_text_size bytes.
/// @return the length of the text.
std::size_t WriteDottedText(char* text, const unsigned char* octets);

}  // namespace TarnSocketIO::detail
