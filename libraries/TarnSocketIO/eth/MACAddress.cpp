#include <TarnSocketIO/detail/HexByte.h>
#include <TarnSocketIO/detail/LibcAssert.h>
#include <TarnSocketIO/detail/NumberFields.h>
#include <TarnSocketIO/detail/PlainAddress.h>
#include <TarnSocketIO/eth/MACAddress.h>

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <locale>
#include <stdexcept>
#include <string_view>

namespace TarnSocketIO {

namespace {

constexpr const char* source_file = "libraries/TarnSocketIO/eth/MACAddress.cpp";

constexpr int fields = 6;
constexpr detail::FieldGrammar grammar = {
    ':',
    fields,
    16,  // base
    11,  // characters at least
    17,  // characters at most
    "incorrect length for MAC address string",
    "bad formatted MAC address string",
    "bad hex number found in MAC address string",
};

/// At least `width` digits, as a stream writes a number with that width and the fill character 0.
char* WriteDecimal(char* at, Octet octet, int width) {
    if (octet >= 100 || width > 2) {
        *at++ = static_cast<char>('0' + octet / 100);
    }
    *at++ = static_cast<char>('0' + octet / 10 % 10);
    *at++ = static_cast<char>('0' + octet % 10);
    return at;
}

/// In decimal the first field has three digits at least, and the others two.
int FieldWidth(int field, bool hexadecimal) {
    return field == 0 && !hexadecimal ? 3 : 2;
}

/// @return whether the stream fills from the left, and writes nothing else but the digits of base 10 or 16.
bool WritesPlainNumbers(const std::ostream& os) {
    const std::ios_base::fmtflags unusual = os.flags() & (std::ios_base::showbase | std::ios_base::oct);
    // Other locales may bring number formatting of the application's own.
    return unusual == 0 && (os.flags() & std::ios_base::adjustfield) != std::ios_base::left &&
           os.getloc() == std::locale::classic();
}

void WriteAtOnce(std::ostream& os, const Octet* octets, bool hexadecimal) {
    char text[fields * sizeof "255"];
    char* at = text;
    for (int i = 0; i < fields; ++i) {
        if (i > 0) {
            *at++ = ':';
        }
        at = hexadecimal ? detail::WriteHexByte(at, octets[i], detail::upper_hex_digits)
                         : WriteDecimal(at, octets[i], FieldWidth(i, hexadecimal));
    }
    os.width(0);
    os << std::string_view(text, static_cast<std::size_t>(at - text));
}

void WriteOctetByOctet(std::ostream& os, const Octet* octets, bool hexadecimal) {
    for (int i = 0; i < fields; ++i) {
        if (i > 0) {
            os << ':';
        }
        os << std::setw(FieldWidth(i, hexadecimal)) << static_cast<unsigned int>(octets[i]);
    }
}

}  // namespace

void MACAddress::Set(const unsigned char* mac, Endian e) {
    Octet mac_param[octet_count];
    std::copy_n(mac, octet_count, mac_param);
    // The expressions are reported as they stand here.
    // clang-format off
    TARN_LIBC_ASSERT_IN(source_file, 74, reinterpret_cast<const Octet*>(&m_MACAddress4) == OctetForm());
    TARN_LIBC_ASSERT_IN(source_file, 75, reinterpret_cast<const Octet*>(&m_MACAddress2) == OctetForm()+sizeof(m_MACAddress4));
    std::copy_n(mac_param, octet_count, OctetForm());
    if (e == BigEndian) {
        for (unsigned int i = 0; i < octet_count; ++i) {
            TARN_LIBC_ASSERT_IN(source_file, 100, OctetForm()[i] == mac_param[i]);
        }
        return;
    }
    SwapEndian();
    for (unsigned int i = 0; i < octet_count; ++i) {
        TARN_LIBC_ASSERT_IN(source_file, 110, OctetForm()[i] == mac_param[6-1-i]);
    }
    // clang-format on
}

void MACAddress::Set(const char* str) {
    Octet parsed[fields];
    if (str == nullptr) {
        throw std::runtime_error(grammar.bad_length);
    }
    const char* at = str;
    if (!detail::ReadPlainHardwareAddress(at, parsed) || *at != '\0') {
        detail::ReadNumberFields(str, grammar, [&](int i, long value) { parsed[i] = static_cast<Octet>(value); });
    }
    std::copy_n(parsed, fields, OctetForm());
}

std::ostream& MACAddress::debug() const {
    return std::cout << "m_MACAddress4: 0x" << std::hex << m_MACAddress4 << ", m_MACAddress2: 0x" << m_MACAddress2
                     << "\n";
}

std::ostream& operator<<(std::ostream& os, const MACAddress& mac) {
    const bool hexadecimal = (os.flags() & std::ios_base::hex) != 0;
    // Kept: these stay set on the stream.
    if (hexadecimal) {
        os << std::hex << std::uppercase;
    }
    os << std::setfill('0');
    if (WritesPlainNumbers(os)) {
        WriteAtOnce(os, mac.OctetForm(), hexadecimal);
    } else {
        WriteOctetByOctet(os, mac.OctetForm(), hexadecimal);
    }
    return os;
}

}  // namespace TarnSocketIO
