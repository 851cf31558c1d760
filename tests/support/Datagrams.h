#pragma once

#include <cstdint>
#include <string>

namespace TarnTest {

/// Sends one datagram, from a socket of its own. Throws std::system_error when that fails.
///
/// @param to  a dotted quad.
void SendDatagram(std::uint16_t port, const std::string& data, const char* to = "127.0.0.1");

}  // namespace TarnTest
