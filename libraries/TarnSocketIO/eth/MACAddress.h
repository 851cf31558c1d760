#pragma once

#include <TarnSocketIO/Endian.h>

#include <cstdint>
#include <iosfwd>

namespace TarnSocketIO {

/// One byte of a hardware address.
using Octet = unsigned char;

/// A 48-bit Ethernet hardware address, as ARP records and the ARP file cache hold it.
///
///     octet          0    1    2    3    4    5
///     00:1a:2b ...  [ m_MACAddress4    ][ m_MACAddress2 ]
///
/// Threads: a plain value; distinct objects are independent.
class MACAddress {
public:
    /// 00:00:00:00:00:00
    MACAddress() { SetToZero(); }

    /// As Set(mac, e).
    MACAddress(const unsigned char* mac, Endian e) noexcept { Set(mac, e); }

    /// What every address fulfils, as there are no six octets that are none. @return true
    static bool class_invariant() { return true; }

    void SetToZero() {
        m_MACAddress4 = 0;
        m_MACAddress2 = 0;
    }

    /// @param mac  six octets, first one first (BigEndian) or last one first; copied, and may be this object's
    ///             own.
    void Set(const unsigned char* mac, Endian e);

    /// Parses text: "0", or six fields with colons between them, 11 to 17 characters in all. A field is a hexadecimal
    /// number as strtol(3) reads it, of which the low eight bits count: white space, a sign and 0x may stand before it,
    /// and an empty field is 0. As there, a number beyond the range of `long` is the end of that range: a field of nine
    /// digits or more can mean another octet where `long` has four bytes.
    ///
    /// @throws std::runtime_error "incorrect length for MAC address string" (also if `str` is null), "bad formatted MAC
    ///         address string" or "bad hex number found in MAC address string". The address is then as it was.
    void Set(const char* str);

    /// Set(str).
    MACAddress& operator=(const char* str) {
        Set(str);
        return *this;
    }

    /// Reverses the order of the octets in place.
    void SwapEndian() noexcept { swap_endian(OctetForm(), octet_count); }

    /// @return the six octets, first one first; valid while this object lives.
    Octet* OctetForm() { return reinterpret_cast<Octet*>(this); }
    const Octet* OctetForm() const { return reinterpret_cast<const Octet*>(this); }

    /// Writes the two members to std::cout as hexadecimal numbers, and a line break. They depend on the byte order of
    /// the machine. @return std::cout, left in hexadecimal mode.
    std::ostream& debug() const;

private:
    static constexpr unsigned int octet_count = 6;

    std::int32_t m_MACAddress4;  ///< octets 0 to 3 in memory order
    std::int16_t m_MACAddress2;  ///< octets 4 and 5, right behind them
};

/// Writes an address in one of two forms, by the stream's `hex` flag: 00:1A:2B:3C:4D:5E with it, and
/// 000:26:43:60:77:94 without it, where only the first number has three digits at least.
///
/// The fill character '0' stays set on the stream; with the `hex` flag, `uppercase` does too.
std::ostream& operator<<(std::ostream& os, const MACAddress& mac);

}  // namespace TarnSocketIO
