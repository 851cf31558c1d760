#include <TarnSocketIO/Asserter.h>
#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/detail/DottedText.h>
#include <TarnSocketIO/detail/LibcAssert.h>
#include <TarnSocketIO/detail/NumberFields.h>
#include <TarnSocketIO/detail/PlainAddress.h>

#include <charconv>
#include <cstring>
#include <locale>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace IPv4 {

namespace {

constexpr const char* source_file = "libraries/TarnSocketIO/IPv4/IPAddress.cpp";

constexpr int fields = 4;
constexpr TarnSocketIO::detail::FieldGrammar grammar = {
    '.',
    fields,
    0,   // base: the one that each number's prefix names
    7,   // characters at least
    19,  // characters at most
    "bad ip address string length",
    "bad ip address string",
    "bad ip address string",
};

using Manipulator = std::ios_base& (*)(std::ios_base&);

[[maybe_unused]] const bool class_invariant_holds = IPAddress::class_invariant();

in_addr_t WordOf(const unsigned char (&octets)[fields]) {
    in_addr_t word = 0;
    std::memcpy(&word, octets, sizeof word);
    return word;
}

/// Reads every form that is accepted, and throws for all others.
in_addr_t ReadFields(const char* text) {
    unsigned char octets[fields];
    TarnSocketIO::detail::ReadNumberFields(text, grammar, [&octets](int i, long value) {
        if (value < 0 || value > 255) {
            throw std::range_error("bad ip address string field");
        }
        octets[i] = static_cast<unsigned char>(value);
    });
    return WordOf(octets);
}

/// The dotted text of an address as a stream in the classic locale writes it, without a stream.
class PlainText {
public:
    /// @param base  std::ios_base::hex, std::ios_base::oct, or anything else for decimal.
    PlainText(IPAddress ip, std::ios_base::fmtflags base) {
        if (base == std::ios_base::hex) {
            WriteInBase(16, ip.OctetForm());
        } else if (base == std::ios_base::oct) {
            WriteInBase(8, ip.OctetForm());
        } else {
            m_length = TarnSocketIO::detail::WriteDottedText(m_text, ip.OctetForm());
        }
    }

    std::string_view View() const { return {m_text, m_length}; }

private:
    void WriteInBase(int base, const unsigned char* octets) {
        char* at = m_text;
        for (int i = 0; i < fields; ++i) {
            if (i > 0) {
                *at++ = '.';
            }
            at = std::to_chars(at, m_text + sizeof m_text, octets[i], base).ptr;
        }
        m_length = static_cast<std::size_t>(at - m_text);
    }

    // The longest text is the same in octal as in decimal.
    char m_text[TarnSocketIO::detail::dotted_text_size];
    std::size_t m_length = 0;
};

/// @return whether the stream would write nothing but the digits of its base. Other locales may group digits, or bring
///         number formatting of the application's own.
bool WritesPlainNumbers(const std::ostream& os) {
    const std::ios_base::fmtflags base = os.flags() & std::ios_base::basefield;
    const bool is_decimal = base != std::ios_base::hex && base != std::ios_base::oct;
    const bool has_plain_digits = (os.flags() & (std::ios_base::showbase | std::ios_base::uppercase)) == 0;
    return os.width() == 0 && (is_decimal || has_plain_digits) && os.getloc() == std::locale::classic();
}

void WriteOctetByOctet(std::ostream& os, const unsigned char* octets) {
    os << static_cast<unsigned int>(octets[0]);
    for (int i = 1; i < fields; ++i) {
        os << '.' << static_cast<unsigned int>(octets[i]);
    }
}

/// @return the text that a new stream makes of the address after the manipulator.
std::string StreamText(IPAddress ip, Manipulator base) {
    std::stringstream stream;
    // The sizes that a buffer must have are those of plain digits: a global locale that groups them would overrun it.
    stream.imbue(std::locale::classic());
    if (base != nullptr) {
        stream << base;
    }
    WriteOctetByOctet(stream, ip.OctetForm());
    return stream.str();
}

/// Hands the text that GetPresentation makes to `use`, as a std::string_view.
template <class Use>
void WithPresentation(IPAddress ip, Manipulator base, Use use) {
    if (base == &std::dec) {
        use(PlainText(ip, std::ios_base::dec).View());
    } else if (base == &std::hex) {
        use(PlainText(ip, std::ios_base::hex).View());
    } else if (base == &std::oct) {
        use(PlainText(ip, std::ios_base::oct).View());
    } else {
        use(std::string_view(StreamText(ip, base)));
    }
}

}  // namespace

template <>
in_addr_t StrToAddress<BigEndian>(const char* str) {
    if (str == nullptr) {
        // The signature as the device's compiler writes it; newer ones write the enumerator's name.
        TarnSocketIO::detail::FailLibcAssertion("str != 0", source_file, 78,
                                                "in_addr_t IPv4::StrToAddress(const char*) [with Endian <anonymous> = "
                                                "(Endian)1u; in_addr_t = unsigned int]");
    }
    unsigned char octets[fields];
    const char* at = str;
    const bool is_plain = TarnSocketIO::detail::ReadPlainQuad(at, octets) && *at == '\0';
    return is_plain ? WordOf(octets) : ReadFields(str);
}

template <>
in_addr_t StrToAddress<BigEndian>(const std::string& str) {
    return StrToAddress<BigEndian>(str.c_str());
}

IPAddress::IPAddress(const char* str) : m_Address(StrToAddress<BigEndian>(str)) {}

IPAddress::IPAddress(const std::string& str) : m_Address(StrToAddress<BigEndian>(str)) {}

void IPAddress::FailOctetCheck() {
    TarnSocketIO::detail::FailLibcAssertion(
        "operator struct in_addr() == ip", source_file, 202,
        "IPv4::IPAddress::IPAddress(unsigned char, unsigned char, unsigned char, unsigned char)");
}

IPAddress::IPAddress(const sockaddr& sa) : m_Address(0) {
    if (sa.sa_family != AF_INET) {
        throw std::logic_error("IPAddress(const struct sockaddr& addr) addr is not IPv4\n");
    }
    sockaddr_in addr_in{};
    std::memcpy(&addr_in, &sa, sizeof addr_in);
    m_Address = addr_in.sin_addr.s_addr;
    // Kept, although the family cannot be another one by now.
    SOCKETIO_ASSERT_IN(source_file, 214, addr_in.sin_family == AF_INET)(addr_in.sin_family)(AF_INET);
}

IPAddress::IPAddress(const sockaddr_in& addr) : m_Address(addr.sin_addr.s_addr) {
    SOCKETIO_ASSERT_IN(source_file, 225, addr.sin_family == AF_INET)(addr.sin_family)(AF_INET);
}

IPAddress& IPAddress::operator=(const char* str) {
    if (str == nullptr) {
        throw std::logic_error("IPAddress: no text to assign");
    }
    m_Address = StrToAddress<BigEndian>(str);
    return *this;
}

IPAddress& IPAddress::operator=(const std::string& str) {
    m_Address = StrToAddress<BigEndian>(str);
    return *this;
}

void IPAddress::Set(const sockaddr_in& addr) {
    m_Address = addr.sin_addr.s_addr;
    SOCKETIO_ASSERT_IN(source_file, 241, addr.sin_family == AF_INET)(addr.sin_family)(AF_INET);
}

void IPAddress::GetPresentation(std::string& out, Manipulator base) const {
    WithPresentation(*this, base, [&out](std::string_view text) { out += text; });
}

void IPAddress::GetPresentation(char* buf, unsigned int size, Manipulator base) const {
    // Kept: for octal the size is not looked at. The caller owes 16 characters.
    const bool is_octal = base == &std::oct;
    const unsigned int longest = base == &std::dec ? 15 : 19;
    if (!is_octal && size <= longest) {
        throw std::runtime_error("bad string length");
    }
    if (base == &std::dec) {
        // Straight into the buffer: a copy would take as long as making the text.
        TarnSocketIO::detail::WriteDottedText(buf, OctetForm());
        return;
    }
    WithPresentation(*this, base, [=](std::string_view text) {
        if (!is_octal && text.size() >= size) {
            throw std::runtime_error("bad string length");
        }
        std::memcpy(buf, text.data(), text.size());
        buf[text.size()] = '\0';
    });
}

std::ostream& operator<<(std::ostream& os, IPAddress ip) {
    if (WritesPlainNumbers(os)) {
        os << PlainText(ip, os.flags() & std::ios_base::basefield).View();
    } else {
        WriteOctetByOctet(os, ip.OctetForm());
    }
    return os;
}

}  // namespace IPv4
