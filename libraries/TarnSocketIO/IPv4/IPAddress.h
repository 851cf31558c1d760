#pragma once

#include <TarnSocketIO/Endian.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <ios>
#include <iosfwd>
#include <string>

/// The IPv4 address value type, and the parser of its text.
namespace IPv4 {

/// One IPv4 address: a 32-bit word in network byte order, so that the first octet of the dotted form is the first byte
/// in memory on every machine. Four bytes, trivially copyable; pass it by value.
///
/// Text is read strictly, by StrToAddress below; TarnSocketIO::CIPString has a parser that never fails.
///
/// Threads: a plain value; distinct objects are independent. Nothing here allocates, except where text goes into a
/// string, is made by a manipulator other than std::dec, std::hex and std::oct, or an exception is thrown.
class IPAddress {
public:
    /// 0.0.0.0
    IPAddress() : m_Address(0) {}

    /// @param value  a word whose bytes in memory are the octets, first one first (BigEndian) or last one first.
    IPAddress(unsigned int value, Endian e) : m_Address(e == BigEndian ? value : swap_endian(value)) {}

    /// As Set(bytes, e).
    IPAddress(const unsigned char* bytes, Endian e) : m_Address(0) { Set(bytes, e); }

    // NOLINTBEGIN(google-explicit-constructor): an address may be written as text, or as the kernel's record of it

    /// Parses text; StrToAddress says what is accepted, thrown and asserted.
    IPAddress(const char* str);

    /// As above. The text ends at its first NUL.
    IPAddress(const std::string& str);

    /// The octets in the order in which they are written.
    IPAddress(unsigned char o1, unsigned char o2, unsigned char o3, unsigned char o4);

    IPAddress(const in_addr& a) : m_Address(a.s_addr) {}

    /// The address of a socket address; the port is not kept.
    /// @throws std::logic_error "IPAddress(const struct sockaddr& addr) addr is not IPv4\n" if the family is not
    /// AF_INET.
    IPAddress(const sockaddr& sa);

    /// As above, but asserts the family: another one is reported and the process aborts.
    IPAddress(const sockaddr_in& addr);

    // NOLINTEND(google-explicit-constructor)

    /// Takes a word in network byte order, unchanged. Write a literal zero as `0U`: a plain 0 may be a null text too.
    IPAddress& operator=(unsigned int value) {
        m_Address = value;
        return *this;
    }

    /// Parses text; what StrToAddress throws leaves the address as it was.
    /// @throws std::logic_error  if `str` is null: here that is an error of the text, not of the program.
    IPAddress& operator=(const char* str);

    /// As above. The text ends at its first NUL.
    IPAddress& operator=(const std::string& str);

    /// @param bytes  four octets, first one first (BigEndian) or last one first.
    void Set(const unsigned char* bytes, Endian e) {
        Set(bytes[0], bytes[1], bytes[2], bytes[3]);
        if (e != BigEndian) {
            SwapByteOrder();
        }
    }

    /// The octets in the order in which they are written.
    void Set(unsigned char o1, unsigned char o2, unsigned char o3, unsigned char o4) {
        unsigned char* const octets = OctetForm();
        octets[0] = o1;
        octets[1] = o2;
        octets[2] = o3;
        octets[3] = o4;
    }

    /// Copies the address, then asserts that the family is AF_INET: another one is reported and the process aborts.
    void Set(const sockaddr_in& addr);

    /// @return the word in network byte order, as `in_addr::s_addr` holds it.
    unsigned int NetworkNumericForm() const { return m_Address; }

    /// @return the same, to be changed in place.
    unsigned int& NetworkNumericForm() { return m_Address; }

    /// @return the word with its bytes reversed, on every machine: on a little-endian one that is the address as a
    ///         number, whose most significant byte is the first octet.
    unsigned int HostNumericForm() const { return swap_endian(m_Address); }

    /// @return the four octets, first one first; valid while this object lives. They may be written.
    unsigned char* OctetForm() { return reinterpret_cast<unsigned char*>(&m_Address); }
    const unsigned char* OctetForm() const { return reinterpret_cast<const unsigned char*>(&m_Address); }

    /// Reverses the four octets in place.
    void SwapByteOrder() { swap_endian(OctetForm(), sizeof m_Address); }

    // NOLINTBEGIN(google-explicit-constructor): the kernel's records are other forms of the same value

    operator in_addr() const {
        in_addr a{};
        a.s_addr = m_Address;
        return a;
    }

    /// A record with the family AF_INET, this address, port 0 and zeros.
    operator sockaddr_in() const {
        sockaddr_in sin{};
        sin.sin_family = AF_INET;
        sin.sin_addr.s_addr = m_Address;
        return sin;
    }

    // NOLINTEND(google-explicit-constructor)

    /// Appends the dotted form to `out`. No prefix is written: 192.168.1.1 is c0.a8.1.1 in hexadecimal. The global
    /// locale does not matter.
    ///
    /// @param base  std::dec, std::hex, std::oct, or any other manipulator: it is applied to a new stream, which the
    ///              octets are then written to. Null leaves that stream as it is, decimal.
    void GetPresentation(std::string& out, std::ios_base& (*base)(std::ios_base&)) const;

    /// Writes the dotted form and its terminator to `buf`.
    ///
    /// @param size  of `buf`: more than 15 for std::dec, more than 19 for every other manipulator but std::oct. For
    ///              std::oct it is not looked at, and `buf` must have room for 16 characters.
    /// @throws std::runtime_error "bad string length" if `size` is too small, or if a manipulator of the application's
    ///         own makes a text that does not fit. Nothing is written then.
    void GetPresentation(char* buf, unsigned int size, std::ios_base& (*base)(std::ios_base&)) const;

    /// What every address fulfils, as there is no word that is none. @return true
    static bool class_invariant() { return true; }

private:
    /// Reports that four octets have not made the address that their bytes make, and aborts.
    [[noreturn]] static void FailOctetCheck();

    std::uint32_t m_Address;
};

inline bool operator==(IPAddress a, IPAddress b) {
    return a.NetworkNumericForm() == b.NetworkNumericForm();
}

inline bool operator!=(IPAddress a, IPAddress b) {
    return !(a == b);
}

inline IPAddress::IPAddress(unsigned char o1, unsigned char o2, unsigned char o3, unsigned char o4) : m_Address(0) {
    Set(o1, o2, o3, o4);
    const unsigned char bytes[] = {o1, o2, o3, o4};
    const IPAddress ip(bytes, BigEndian);
    // Kept. It costs nothing where the compiler sees both addresses, as it does for constants.
    if (!(operator in_addr() == ip)) {
        FailOctetCheck();
    }
}

/// Orders by the first octet, then the second, third and fourth.
inline bool operator<(IPAddress a, IPAddress b) {
    return ntohl(a.NetworkNumericForm()) < ntohl(b.NetworkNumericForm());
}

/// Writes the octets as unsigned integers with dots between them, in the base and with the flags that the stream has. A
/// width that is set is that of the first octet, as for any number. Nothing of the stream's state is changed otherwise.
std::ostream& operator<<(std::ostream& os, IPAddress ip);

/// Parses the text of an address. The only instantiation is the one for BigEndian.
///
/// Text is "0", or four fields with dots between them, 7 to 19 characters in all. A field is a number from 0 to 255 as
/// strtol(3) reads it with base 0: after white space and a sign, 0x means hexadecimal and a leading 0 octal, so that
/// 010.1.1.1 is 8.1.1.1. An empty field is 0. Behind its number a field ends: a blank there is an error.
///
/// @return the address in network byte order.
/// @throws std::runtime_error "bad ip address string length" or "bad ip address string"
/// @throws std::range_error "bad ip address string field" for a number outside 0 to 255.
/// A null `str` is a failed assert() of the C library: the process aborts.
template <Endian>
in_addr_t StrToAddress(const char* str) = delete;
template <>
in_addr_t StrToAddress<BigEndian>(const char* str);

/// As above. The text ends at its first NUL.
template <Endian>
in_addr_t StrToAddress(const std::string& str) = delete;
template <>
in_addr_t StrToAddress<BigEndian>(const std::string& str);

}  // namespace IPv4
