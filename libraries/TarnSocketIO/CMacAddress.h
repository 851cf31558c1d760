#pragma once

namespace TarnSocketIO {

/// Six octets of a hardware address, with a lower-case text made on demand. For the ARP update of an endpoint; the
/// type for parsing and ARP records is MACAddress.
///
/// Threads: a plain value; making the text writes to the object.
class CMacAddress {
public:
    /// All octets 0. #m_szMacAddress is left as the storage held it.
    CMacAddress();
    CMacAddress(const CMacAddress& other);
    CMacAddress& operator=(const CMacAddress& other);

    /// Copies the octets and the whole text.
    void Copy(const CMacAddress& other);

    /// Writes the octets into #m_szMacAddress as "00:1a:2b:3c:4d:5e".
    /// @return #m_szMacAddress; valid while this object lives, rewritten by the next call.
    const char* GetString();

    /// GetString().
    operator const char*() { return GetString(); }  // NOLINT(google-explicit-constructor): part of the interface

    unsigned char m_Octets[6];  ///< the first octet of the written form first; the user fills them
    char m_szMacAddress[18];    ///< what GetString wrote last: 17 characters and the terminator
};

}  // namespace TarnSocketIO
