#include <TarnSocketIO/CMacAddress.h>
#include <TarnSocketIO/detail/HexByte.h>

#include <cstring>

namespace TarnSocketIO {

// Kept: the text stays as the storage held it. Nobody reads it before GetString has written it.
CMacAddress::CMacAddress() : m_Octets{} {}

CMacAddress::CMacAddress(const CMacAddress& other) {
    Copy(other);
}

CMacAddress& CMacAddress::operator=(const CMacAddress& other) {
    if (this != &other) {
        Copy(other);
    }
    return *this;
}

void CMacAddress::Copy(const CMacAddress& other) {
    std::memcpy(m_Octets, other.m_Octets, sizeof m_Octets);
    std::memcpy(m_szMacAddress, other.m_szMacAddress, sizeof m_szMacAddress);
}

const char* CMacAddress::GetString() {
    char* at = m_szMacAddress;
    for (const unsigned char octet : m_Octets) {
        at = detail::WriteHexByte(at, octet, detail::lower_hex_digits);
        *at++ = ':';
    }
    // The terminator takes the place of the colon behind the last octet.
    m_szMacAddress[sizeof m_szMacAddress - 1] = '\0';
    return m_szMacAddress;
}

}  // namespace TarnSocketIO
