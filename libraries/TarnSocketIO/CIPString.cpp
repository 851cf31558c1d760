#include <TarnSocketIO/CIPString.h>
#include <TarnSocketIO/detail/DottedText.h>
#include <TarnSocketIO/detail/NumberText.h>

#include <cstdint>
#include <cstring>

namespace TarnSocketIO {

namespace {

constexpr std::size_t shortest_text = 7;
constexpr int longest_field = 3;

_RAW_IP RawOf(IPv4::IPAddress ip) {
    _RAW_IP raw{};
    std::memcpy(raw.m_Octets, ip.OctetForm(), sizeof raw.m_Octets);
    return raw;
}

}  // namespace

CIPString::CIPString() : m_RawIP{}, m_szIPString{}, m_bStringValid(true) {}

CIPString::CIPString(const char* s) : CIPString() {
    if (s != nullptr) {
        Parse(s);
    }
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): by value is part of the interface
CIPString::CIPString(std::string s) : CIPString() {
    if (s.length() >= shortest_text) {
        Parse(s.c_str());
    }
}

CIPString::CIPString(const CIPString& other) : CIPString(other.m_RawIP) {}

CIPString::CIPString(const _RAW_IP& raw) : m_RawIP(raw), m_szIPString{}, m_bStringValid(false) {}

CIPString::CIPString(IPv4::IPAddress ip) : CIPString(RawOf(ip)) {}

void CIPString::Parse(const char* s) {
    m_bStringValid = false;
    if (s == nullptr) {
        return;
    }
    for (unsigned char& octet : m_RawIP.m_Octets) {
        char field[longest_field + 1] = {};
        unsigned int number = 0;
        bool only_digits = true;
        for (int length = 0; length < longest_field && *s != '.' && *s != '\0'; ++length, ++s) {
            const unsigned int digit = static_cast<unsigned int>(*s) - '0';
            number = number * 10 + digit;
            only_digits = only_digits && digit <= 9;
            field[length] = *s;
        }
        // A field is nearly always plain digits, which have their number by now.
        octet = static_cast<unsigned char>(only_digits ? number : detail::ReadNumber(field, 10).value);
        if (*s == '\0') {
            return;
        }
        // Kept: where a field has a fourth character, that one is skipped in place of the dot.
        ++s;
    }
}

CIPString::operator int() const {
    std::uint32_t number = 0;
    for (const unsigned char octet : m_RawIP.m_Octets) {
        number = number << 8 | octet;
    }
    return static_cast<int>(number);
}

CIPString::operator IPv4::IPAddress() const {
    return {m_RawIP.m_Octets, BigEndian};
}

const char* CIPString::c_str_helper() const {
    if (!m_bStringValid) {
        std::memset(m_szIPString, 0, sizeof m_szIPString);
        detail::WriteDottedText(m_szIPString, m_RawIP.m_Octets);
        m_bStringValid = true;
    }
    return m_szIPString;
}

CIPString& CIPString::operator=(const CIPString& other) {
    if (this != &other) {
        Copy(other);
    }
    return *this;
}

CIPString& CIPString::operator=(const char* s) {
    Parse(s);
    return *this;
}

CIPString& CIPString::operator=(const _RAW_IP& raw) {
    m_RawIP = raw;
    m_bStringValid = false;
    return *this;
}

CIPString& CIPString::operator=(IPv4::IPAddress ip) {
    return *this = RawOf(ip);
}

void CIPString::Copy(const CIPString& other) {
    *this = other.m_RawIP;
}

}  // namespace TarnSocketIO
