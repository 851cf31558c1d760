#pragma once

#include <TarnSocketIO/IPv4/IPAddress.h>

#include <string>

namespace TarnSocketIO {

/// Four octets of an IPv4 address, in the order in which they are written.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the name is part of the interface
struct _RAW_IP {
    unsigned char m_Octets[4];
};

/// An IPv4 address with its dotted text: what an endpoint's notifications name their sender with.
///
/// It reads text leniently and never fails; IPv4::IPAddress has the strict parser. The text is made when it is first
/// asked for and kept inside the object; no operation allocates.
///
/// It stands for so much that the compiler may ask which form is meant. Say it: `ip = text.c_str()` for a std::string,
/// `address = IPv4::IPAddress(ip)`, `ip.c_str()` in a stream, and IPv4::IPAddress to compare.
///
/// Threads: distinct objects are independent. The text is made by const operations too, so one object must not be read
/// by two threads at once unless its text has been asked for since the last change.
class CIPString {
public:
    /// 0.0.0.0 with an empty text.
    CIPString();

    // NOLINTBEGIN(google-explicit-constructor): the forms of an address stand for one another

    /// Parses text as Parse does; octets that it does not name are 0. Null makes the default object.
    CIPString(const char* s);

    /// As above; text of fewer than 7 characters makes the default object. It ends at its first NUL.
    CIPString(std::string s);
    CIPString(const CIPString& other);
    CIPString(const _RAW_IP& raw);
    CIPString(IPv4::IPAddress ip);

    // NOLINTEND(google-explicit-constructor)

    /// Reads up to four fields that end at a dot, at the end of the text, or after three characters: a fourth one is
    /// skipped, whatever it is, and the rest is the next field (1234.5.6.7 is 123.0.5.6). A field is a number as
    /// atoi(3) reads it, of which the low eight bits count: 300 is 44, -1 is 255, an empty field or no number at all is
    /// 0.
    ///
    /// Octets that the text does not reach stay as they were: 10.1 makes 192.168.5.7 into 10.1.5.7. So does every octet
    /// if `s` is null.
    void Parse(const char* s);

    // NOLINTBEGIN(google-explicit-constructor)

    /// c_str().
    operator const char*() const { return c_str_helper(); }

    /// @return the octets as a number whose most significant byte is the first octet; negative from 128.0.0.0 on.
    operator int() const;
    operator IPv4::IPAddress() const;

    // NOLINTEND(google-explicit-constructor)

    /// @return the dotted text, "192.168.1.20"; empty for a default object until an address is set, 0.0.0.0 included.
    ///         Valid while this object lives; its characters change with the next text that is made.
    const char* c_str() const { return c_str_helper(); }

    /// Makes the text if it is not current. @return as c_str().
    const char* c_str_helper() const;

    /// Copies the octets to `out`.
    void GetRawIP(_RAW_IP& out) const { out = m_RawIP; }

    CIPString& operator=(const CIPString& other);

    /// Parses text as Parse does: octets that it does not reach stay.
    CIPString& operator=(const char* s);
    CIPString& operator=(const _RAW_IP& raw);
    CIPString& operator=(IPv4::IPAddress ip);

    /// Copies the octets; the text will be made anew.
    void Copy(const CIPString& other);

private:
    _RAW_IP m_RawIP;
    mutable char m_szIPString[16];
    mutable bool m_bStringValid;
};

}  // namespace TarnSocketIO
