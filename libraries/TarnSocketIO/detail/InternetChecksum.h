#pragma once

#include <cstddef>
#include <cstdint>

namespace TarnSocketIO::detail {

/// The Internet checksum (RFC 1071) of bytes of any alignment and number.
///
/// @return the 16 bits as they are stored in memory, in the byte order of the machine.
std::uint16_t InternetChecksum(const void* data, std::size_t length);

}  // namespace TarnSocketIO::detail
