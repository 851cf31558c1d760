#pragma once

#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/eth/MACAddress.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

/// Reads the kernel's ARP table in its text form, and answers from what it has read: for many look-ups at a time. See
/// proc(5), /proc/net/arp.
///
///     ARPFileReader arp;
///     arp.CacheFileContent();
///     const TarnSocketIO::MACAddress mac = arp.GetCachedMACAddress(IPv4::IPAddress(192, 0, 2, 1));
///
/// Threads: look-ups from any thread, but not while CacheFileContent or Set runs.
class ARPFileReader {
public:
    /// One line of the table, as far as it is kept.
    struct ARPTableLineEntry {
        IPv4::IPAddress m_IPAddress;
        TarnSocketIO::MACAddress m_HWAddress;
    };

    /// The kernel's.
    static constexpr const char* DEFAULT_ARP_FILE = "/proc/net/arp";

    /// Reads nothing yet: until CacheFileContent no address is known.
    explicit ARPFileReader(const char* file = DEFAULT_ARP_FILE);

    /// Names another file, for the next CacheFileContent. Look-ups answer from the last one until then.
    /// @param file  copied; null is an empty name.
    void Set(const char* file);

    /// Reads the file, in place of what has been read before.
    ///
    /// The file has a header line of up to 78 characters, and then entries of six words: address, hardware type, flags,
    /// hardware address, mask, device. Any white space separates words. All entries are taken, those that the kernel
    /// has not resolved (00:00:00:00:00:00) among them. Reading ends, without a word, where the file cannot be read, at
    /// a last entry of fewer than six words, at a word or white space of more than a million characters, and before the
    /// first entry if the header is longer.
    ///
    /// A file that cannot be opened ends the process: "file could not be open" on standard output and a failed assert()
    /// of the C library. So does an address that stands on two lines, as in the kernel's table where two devices have
    /// the same neighbour; it is found at the end of the file, or sooner.
    ///
    /// An interface without hardware addresses, such as a tunnel, has lines of five words in the kernel's table: their
    /// mask, `*`, stands where the hardware address is expected, and is refused. Only as the last line is one left out.
    ///
    /// @throws std::runtime_error, std::range_error for an address or a hardware address that is none, as IPAddress and
    ///         MACAddress do when they are assigned a text. What stands on the lines before it is known then.
    void CacheFileContent();

    /// @return the hardware address that was read for `ip`; 00:00:00:00:00:00 if there was none. Never reads the file.
    TarnSocketIO::MACAddress GetCachedMACAddress(IPv4::IPAddress ip) const;

private:
    class Remainder;
    using EntryMap = std::map<IPv4::IPAddress, ARPTableLineEntry>;

    void Keep(std::vector<ARPTableLineEntry>& entries);

    std::string m_FileName;
    std::ifstream m_ARPFile;  ///< closed between reads, but for one that has ended by an exception
    EntryMap m_IPARPEntryMap;
};
